// A folder read for a listing: the entries that can ever be listed, with the
// keys their order needs, sorted.
#pragma once

#include <cstddef>
#include <vector>

#include "listing/sort_orders.h"

namespace listing {

// Which entries a scan keeps: hidden names and system folders never;
// "NETWORK_SHARE" not at the top level; files only when shown and passed by
// the MIME prefix; with a keyword only names holding it.
struct scan_filter {
    bool top_level = false;
    bool show_files = true;
    const char *mime_prefix = "";
    const char *keyword = nullptr;  // null: no keyword
};

// One kept entry. `sort` comes first so that the sorted pointers lead back to
// the whole entry.
struct scanned_entry {
    sort_entry sort;
    const char *mime;  // files: MIME type by extension
    bool is_folder;    // a directory, or found so inside the disc tree
};

struct folder_scan {
    std::vector<scanned_entry> entries;
    std::vector<char> names;           // the names and labels the entries point into
    std::vector<sort_entry *> order;   // the entries in listing order
};

inline const scanned_entry &entry_of(const sort_entry *sorted) noexcept {
    return *reinterpret_cast<const scanned_entry *>(sorted);
}

// Reads the folder `dir` (open as dir_fd) into out, sorted by kind. False
// (errno set) when the folder cannot be opened or a read fails midway: a
// partial folder is never listed as if it were whole. Throws std::bad_alloc
// when memory runs out.
bool scan_folder(int dir_fd, const char *dir, sort_kind kind, const scan_filter &filter, folder_scan &out);

}  // namespace listing
