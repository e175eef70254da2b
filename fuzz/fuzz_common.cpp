#include "fuzz/fuzz_common.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace fuzz {

void require_sandbox() noexcept {
    const char *inside = std::getenv("VTR_SANDBOX");
    if (inside == nullptr || std::strcmp(inside, "1") != 0) {
        std::fputs("fuzz targets write below /opt/vtrhttpd and /tmp: run them inside tests/sandbox.sh\n", stderr);
        std::_Exit(2);
    }
}

namespace {

int remove_entry(const char *path, const struct stat *, int, struct FTW *) noexcept {
    ::remove(path);
    return 0;
}

void make_file(const std::string &path, const char *text) noexcept {
    write_file(path.c_str(), text, std::strlen(text));
}

}  // namespace

bool write_file(const char *path, const void *data, std::size_t size) noexcept {
    int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const char *p = static_cast<const char *>(data);
    bool ok = true;
    while (size > 0) {
        ssize_t n = ::write(fd, p, size);
        if (n <= 0) {
            ok = false;
            break;
        }
        p += n;
        size -= static_cast<std::size_t>(n);
    }
    ::close(fd);
    return ok;
}

void reset_scratch_drive() noexcept {
    ::nftw(scratch_drive, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    std::string d = scratch_drive;
    ::mkdir(drives, 0755);
    ::mkdir(d.c_str(), 0755);
    for (const char *folder : {"/Music", "/Photos", "/Movies", "/Movies/DVD", "/Movies/DVD/VIDEO_TS", "/Empty",
                               "/Sub"})
        ::mkdir((d + folder).c_str(), 0755);
    make_file(d + "/Music/01 - a.mp3", "ID3 not really");
    make_file(d + "/Music/10 - b.flac", "fLaC");
    make_file(d + "/Photos/p.png", "\x89PNG\r\n\x1a\n");
    make_file(d + "/Photos/p.jpg", "\xff\xd8\xff");
    make_file(d + "/Movies/clip 9.avi", "RIFF");
    make_file(d + "/Movies/clip 10.mkv", "mkv");
    make_file(d + "/Movies/clip 10.srt", "1\n00:00:01,000 --> 00:00:02,000\nhi\n");
    make_file(d + "/Movies/DVD/VIDEO_TS/VIDEO_TS.IFO", "DVDVIDEO-VMG");
    make_file(d + "/Sub/notes.txt", "some text\n");
    make_file(d + "/Sub/empty.bin", "");
}

response::response() noexcept : root_(vtrsim::new_root()), live_before_(vtrsim::live_nodes() - 1) {}

response::~response() {
    vtrsim::free_tree(static_cast<vtrsim::xml_node *>(root_));
    std::size_t orphans = vtrsim::free_orphans();
    std::size_t live = vtrsim::live_nodes();
    if (orphans != 0 || live != live_before_) {
        std::fprintf(stderr, "XML node leak: %zu orphan(s), %zu live before, %zu after\n", orphans, live_before_,
                     live);
        std::abort();
    }
}

}  // namespace fuzz
