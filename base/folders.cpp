#include "base/folders.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace base {

unique_dir open_folder_at(int at, const char *name, int flags) noexcept {
    const int fd = ::openat(at, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags);
    unique_dir dir(fd >= 0 ? ::fdopendir(fd) : nullptr);
    if (fd >= 0 && dir == nullptr) ::close(fd);
    return dir;
}

const dirent *next_entry(DIR *dir, bool *failed) noexcept {
    for (;;) {
        errno = 0;
        const dirent *e = ::readdir(dir);
        if (e == nullptr) {
            *failed = errno != 0;
            return nullptr;
        }
        const char *name = e->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
        return e;
    }
}

}  // namespace base
