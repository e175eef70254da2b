// Folder streams opened relative to a parent's descriptor, for the walks of
// the copy and the delete.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include "base/owners.h"

namespace transfer {

// The folder `name` of the folder open as `at` (AT_FDCWD: a path), with
// O_RDONLY | O_DIRECTORY | O_CLOEXEC and `flags`; null when it cannot be
// opened.
inline base::unique_dir open_folder_at(int at, const char *name, int flags = 0) noexcept {
    const int fd = ::openat(at, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags);
    base::unique_dir dir(fd >= 0 ? ::fdopendir(fd) : nullptr);
    if (fd >= 0 && dir == nullptr) ::close(fd);
    return dir;
}

}  // namespace transfer
