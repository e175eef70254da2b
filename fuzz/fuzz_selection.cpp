// The selection file readers over arbitrary bytes: search, count, reader and done flag. The first byte picks the
// path and options; the rest is the file.
#include <array>

#include "fuzz/fuzz_common.h"
#include "transfer/selection.h"

namespace {
// The done flag is written through the selection file itself, so the input goes there (a sandbox tmpfs).
constexpr const char *file = transfer::selection_file;
constexpr std::array<const char *, 4> paths{"/opt/vtrhttpd/localhost.drives/A/b.txt", "b.txt", "", "|"};
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return fuzz::require_sandbox(), 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > 65536) return -1;
    if (!fuzz::write_file(file, data + 1, size - 1)) return 0;
    int fd = ::open(file, O_RDWR | O_CLOEXEC);
    if (fd < 0) return 0;
    const char *path = paths[data[0] & 3];
    int found = transfer::find_selection_record(fd, path);
    if (found < -1 || found > 1) std::abort();
    ::lseek(fd, 0, SEEK_SET);
    int selected = transfer::count_selected_records(fd);
    ::lseek(fd, 0, SEEK_SET);
    int read = 0;
    static thread_local char name[4096];
    static thread_local char label[4096];
    for (int guard = 0; guard < 100000; ++guard) {
        int small = (data[0] & 4) != 0 ? 8 : static_cast<int>(sizeof name);
        if (get_filename(fd, name, small, label) != 1) break;
        if (std::strlen(name) >= static_cast<std::size_t>(small)) std::abort();
        if ((data[0] & 8) != 0) transfer::mark_record_done(fd, name, label);
        ++read;
    }
    // Every selected record is read once (a cut path still counts as read).
    if ((data[0] & 4) == 0 && read > selected) std::abort();
    ::close(fd);
    return 0;
}
