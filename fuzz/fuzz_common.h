// Shared pieces of the fuzz targets: the sandbox guard, a small drive tree, file writing and the response element
// with its node-leak check.
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host/sim/xml_tree.h"
#include "platform/host_api.h"

namespace fuzz {

inline constexpr const char *drives = "/opt/vtrhttpd/localhost.drives";
inline constexpr const char *scratch_drive = "/opt/vtrhttpd/localhost.drives/FUZZ_DRIVE-1";

inline void require_sandbox() noexcept {
    if (const char *inside = std::getenv("VTR_SANDBOX"); inside == nullptr || std::strcmp(inside, "1") != 0)
        std::fputs("fuzz targets write below /opt/vtrhttpd and /tmp: run them inside tests/sandbox.sh\n", stderr), std::_Exit(2);
}

inline bool write_file(const char *path, const void *data, std::size_t size) noexcept {
    int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool ok = fd >= 0 && ::write(fd, data, size) == static_cast<ssize_t>(size);
    if (fd >= 0) ::close(fd);
    return ok;
}

inline int remove_entry(const char *path, const struct stat *, int, struct FTW *) noexcept { return ::remove(path), 0; }

// Removes everything below the drives root and makes the scratch drive: a few folders, files of several types, a disc
// folder and an empty file.
inline void reset_drives() noexcept {
    ::nftw(drives, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    const std::string d = scratch_drive;
    for (const char *folder : {"", "/Music", "/Photos", "/Movies", "/Movies/DVD", "/Movies/DVD/VIDEO_TS", "/Empty", "/Sub"})
        ::mkdir((d + folder).c_str(), 0755);
    for (const char *file : {"/Music/01 - a.mp3", "/Music/10 - b.flac", "/Photos/p.png", "/Photos/p.jpg", "/Movies/clip 9.avi",
                             "/Movies/clip 10.mkv", "/Movies/DVD/VIDEO_TS/VIDEO_TS.IFO", "/Sub/notes.txt", "/Movies/clip 10.srt"})
        write_file((d + file).c_str(), file, std::strlen(file));
    write_file((d + "/Sub/empty.bin").c_str(), "", 0);
}

// One response element per input; on destruction the tree is freed and the node registry must be back where it was
// (an orphan node is a leak).
class response {
public:
    response() noexcept : root_(vtrsim::new_root()), live_before_(vtrsim::live_nodes() - 1) {}
    ~response() {
        vtrsim::free_tree(static_cast<vtrsim::xml_node *>(root_));
        std::size_t orphans = vtrsim::free_orphans(), live = vtrsim::live_nodes();
        if (orphans != 0 || live != live_before_)
            std::fprintf(stderr, "XML node leak: %zu orphan(s), %zu live, %zu before\n", orphans, live, live_before_), std::abort();
    }
    response(const response &) = delete;
    VantorXmlNode node() const noexcept { return root_; }
    VantorXmlNode *slot() noexcept { return &root_; }

private:
    VantorXmlNode root_;
    std::size_t live_before_;
};

}  // namespace fuzz
