// Reading folders relative to a parent's descriptor (never a working
// folder), so that walks of several threads never disturb each other.
#pragma once

#include <dirent.h>

#include "base/owners.h"

namespace base {

// The folder `name` of the folder open as `at` (AT_FDCWD: a path), opened
// with O_RDONLY | O_DIRECTORY | O_CLOEXEC and `flags`; null when it cannot
// be opened.
unique_dir open_folder_at(int at, const char *name, int flags = 0) noexcept;

// The next entry of dir other than "." and "..". Null at the end; *failed
// then tells whether the folder could not be read to its end (a folder cut
// short must never pass for a whole one).
const dirent *next_entry(DIR *dir, bool *failed) noexcept;

}  // namespace base
