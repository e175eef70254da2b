#include "listing/folder_scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "base/folders.h"
#include "base/owners.h"
#include "base/text.h"
#include "listing/filters.h"
#include "storage/display_names.h"
#include "storage/mime.h"
#include "storage/paths.h"

namespace listing {
namespace {

static_assert(std::is_standard_layout_v<scanned_entry> && offsetof(scanned_entry, sort) == 0);

// The disc tree, also as a path joined with a doubled slash.
bool inside_disc_tree(std::string_view dir) noexcept {
    constexpr std::string_view disc = storage::cdrom_tree.substr(storage::drives_root.size());  // "/CDROM"
    if (dir.starts_with(storage::cdrom_tree)) return true;
    return dir.starts_with(storage::drives_root) && dir.substr(storage::drives_root.size()).starts_with("/") &&
           dir.substr(storage::drives_root.size() + 1).starts_with(disc);
}

struct key_offsets {
    std::size_t name;
    std::size_t label;  // SIZE_MAX: none
};

void append_text(std::vector<char> &names, const char *text) {
    names.insert(names.end(), text, text + std::strlen(text) + 1);
}

}  // namespace

bool scan_folder(int dir_fd, const char *dir, sort_kind kind, const scan_filter &filter, folder_scan &out) {
    // A descriptor of its own for the stream (closedir closes it); dir_fd
    // stays open for the caller's status calls.
    const base::unique_dir stream = base::open_folder_at(dir_fd, ".");
    if (stream == nullptr) return false;
    bool in_disc = inside_disc_tree(dir);
    std::vector<key_offsets> offsets;
    bool failed = false;
    while (const dirent *e = base::next_entry(stream.get(), &failed)) {
        const char *name = e->d_name;
        if (is_hidden_name(name)) continue;
        if (filter.keyword != nullptr && !keyword_matches(name, filter.keyword)) continue;
        scanned_entry item{};
        item.sort.d_type = e->d_type;
        item.is_folder = e->d_type == DT_DIR;
        if (!item.is_folder && in_disc && e->d_type == DT_UNKNOWN) {
            struct stat st;
            item.is_folder = ::fstatat(dir_fd, name, &st, 0) == 0 && S_ISDIR(st.st_mode);
        }
        if (item.is_folder) {
            if (filter.top_level && std::strcmp(name, "NETWORK_SHARE") == 0) continue;
            if (is_system_folder(name)) continue;
        } else {
            if (!filter.show_files) continue;
            item.mime = storage::mime_type_for_path(name);
            if (!mime_passes_filter(item.mime, filter.mime_prefix)) continue;
        }
        if (sort_needs_time(kind) || (sort_needs_size(kind) && !sorts_as_folder(e->d_type))) {
            struct stat st;
            if (::fstatat(dir_fd, name, &st, 0) == 0) {
                item.sort.size = static_cast<int64_t>(st.st_size);
                item.sort.mtime = static_cast<int32_t>(st.st_mtime);
            }
        }
        key_offsets at{out.names.size(), SIZE_MAX};
        append_text(out.names, name);
        if (sort_needs_label(kind) && sorts_as_folder(e->d_type)) {
            base::path_buffer path;
            char label[512];
            if (base::format_into(path, "%s/%s", dir, name)) storage::drive_display_name(path, label);
            else base::copy_text(label, "Unknown");
            at.label = out.names.size();
            append_text(out.names, label);
        }
        out.entries.push_back(item);
        offsets.push_back(at);
    }
    if (failed) return false;  // a folder cut short is not listed as if whole
    out.order.resize(out.entries.size());
    for (std::size_t i = 0; i < out.entries.size(); ++i) {
        scanned_entry &item = out.entries[i];
        item.sort.name = out.names.data() + offsets[i].name;
        item.sort.label = offsets[i].label == SIZE_MAX ? "" : out.names.data() + offsets[i].label;
        out.order[i] = &item.sort;
    }
    sort_entries(out.order, kind);
    return true;
}

}  // namespace listing
