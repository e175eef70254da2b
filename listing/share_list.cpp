#include "listing/share_list.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>
#include <type_traits>
#include <vector>

#include "base/answer.h"
#include "base/export.h"
#include "base/owners.h"
#include "base/spawn.h"
#include "base/text.h"
#include "listing/cache_records.h"
#include "listing/dates.h"
#include "listing/filters.h"
#include "listing/network.h"
#include "listing/sort_orders.h"
#include "listing/type_words.h"
#include "media/disc.h"
#include "storage/display_names.h"
#include "storage/mime.h"
#include "storage/paths.h"

namespace listing {
using base::rc;
namespace {

constexpr std::string_view cdrom_tree = "/opt/vtrhttpd/localhost.drives/CDROM";        // 36
constexpr std::string_view cdrom_tree_doubled = "/opt/vtrhttpd/localhost.drives//CDROM";  // 37
static_assert(cdrom_tree.size() == 36 && cdrom_tree_doubled.size() == 37);
constexpr std::size_t label_file_bytes = 1023;
constexpr std::size_t entry_path_max = base::path_max + 256 + 2;  // dir, "/", a name

// One accepted entry of the scanned folder. `sort` comes first so that the
// sorted pointers lead back to the whole item.
struct scan_item {
    sort_entry sort;
    std::size_t name_offset;
    std::size_t label_offset;
    const char *mime;  // files: MIME type by extension
    bool is_folder;    // accepted as a folder (directory, or found so inside the disc)
};
static_assert(std::is_standard_layout_v<scan_item> && offsetof(scan_item, sort) == 0);

// Everything one call needs; nothing of it outlives the call, so calls may
// run in parallel.
struct share_list_call {
    VantorXmlNode response = nullptr;
    VantorXmlNode file_list = nullptr;
    const char *dir = "";
    int dir_fd = -1;
    bool show_folders = true;
    bool show_files = true;
    bool show_details = true;
    bool top_level = false;
    bool want_pvx = false;
    bool caching = false;
    const char *filter = "";
    const char *mime_prefix = "";

    // The optical drive, once "CDROM" has been met at the top level.
    bool drive_opened = false;  // never cleared again during the call
    bool have_disc_code = false;
    int disc_code = 0;

    // The drive name list, read on first use.
    bool labels_loaded = false;
    char labels[label_file_bytes + 1] = {};

    int32_t emitted = 0;
    int32_t files_available = 0;
    int32_t folders_available = 0;
    cache_page page;
    char path[entry_path_max] = {};
};

// Full path of an entry in the call's path buffer.
const char *entry_path(share_list_call &call, const char *name) noexcept {
    base::format_into(call.path, "%s/%s", call.dir, name);
    return call.path;
}

// The top-level label of a drive: what follows "<name>|" in the first 1023
// bytes of the drive name list, up to the next "|" (or to the end of what
// was read); the entry's own name when there is none.
const char *top_level_label(share_list_call &call, const char *name, std::span<char> out) noexcept {
    if (!call.labels_loaded) {
        call.labels_loaded = true;
        base::unique_fd fd(::open("/tmp/usb_name.txt", O_RDONLY | O_CLOEXEC));
        std::size_t used = 0;
        while (fd.valid() && used < label_file_bytes) {
            ssize_t n = ::read(fd.get(), call.labels + used, label_file_bytes - used);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            used += static_cast<std::size_t>(n);
        }
        call.labels[used] = '\0';
    }
    char key[260];
    if (!base::format_into(key, "%s|", name)) return name;
    const char *found = std::strstr(call.labels, key);
    if (found == nullptr) return name;
    std::string_view label(found + std::strlen(key));
    label = label.substr(0, label.find('|'));
    base::copy_text(out, label);
    return out.data();
}

void open_disc_drive(share_list_call &call) noexcept {
    base::unique_fd fd(::open("/dev/cdrom", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) return;
    call.disc_code = get_disc_type(fd.get());
    call.have_disc_code = true;
    call.drive_opened = true;
}

const char *device_type_of(const char *name) noexcept {
    if (std::strcmp(name, "CDROM") == 0) return "rom";
    if (base::starts_with(name, "USB_DRIVE")) return "usb";
    if (base::starts_with(name, "SATA_DISK")) return "harddisk";
    return "";
}

void add_dates(VantorXmlNode file, const struct stat &st) noexcept {
    char date[32];
    format_date(st.st_mtime, false, date);
    base::add_element(file, "modifyDate", date);
    format_date(st.st_atime, false, date);
    base::add_element(file, "lastAccessDate", date);
}

// Emits one entry as a "file" under "fileList" and keeps its cache entry.
void emit_entry(share_list_call &call, const scan_item &item, const char *name, unsigned int disc_kind) noexcept {
    bool cdrom = std::strcmp(name, "CDROM") == 0;
    bool disc_entry = cdrom && call.top_level && call.have_disc_code;  // this entry is the drive itself
    bool not_file_system = disc_entry && !media::disc_is_file_system(call.disc_code);

    char label[1024];
    const char *display = name;
    if (cdrom) {
        display = media::disc_code_text(disc_entry ? call.disc_code : -1);
        if (not_file_system && call.disc_code == media::disc_code_bd_rom) display = "BD DISC NOT SUPPORTED";
    } else if (call.top_level) {
        display = top_level_label(call, name, label);
    }
    const char *full = entry_path(call, name);
    const char *shown_path = full;
    if (not_file_system) shown_path = call.disc_code == media::disc_code_bd_rom ? "file:///cdrom" : "file:///dev/cdrom";

    VantorXmlNode file = base::new_element("file", "");
    base::add_element(file, "name", display);
    base::add_element(file, "path", shown_path);
    bool as_file = !item.is_folder || disc_kind != media::no_structure;
    const char *type_word = "";
    struct stat st;
    bool have_stat = false;
    if (as_file) {
        type_word = item.is_folder ? type_word_for_disc_kind(disc_kind) : type_word_for_mime(item.mime);
        base::add_element(file, "type", type_word);
        have_stat = ::fstatat(call.dir_fd, name, &st, 0) == 0;
        if (have_stat) {
            if (call.show_details) {
                base::add_unsigned(file, "size", static_cast<unsigned long long>(st.st_size));
                add_dates(file, st);
            }
            base::add_element(file, "isFolder", "no");
        }
    } else {
        have_stat = ::fstatat(call.dir_fd, name, &st, 0) == 0;
        if (have_stat) {
            base::add_element(file, "isFolder", not_file_system ? "no" : "yes");
            if (call.show_details) {
                long long space[3] = {0, 0, 0};
                if (call.top_level && get_partition_free_space(full, space) == 1) {
                    base::unique_malloc<char> fs(get_mounted_filesystem_type(full));
                    base::add_element(file, "fileSystem", fs != nullptr ? fs.get() : "");
                    base::add_number(file, "usedDiskSpace", space[1]);
                    base::add_number(file, "freeDiskSpace", space[0]);
                    base::add_number(file, "size", space[2]);
                } else {
                    base::add_unsigned(file, "size", static_cast<unsigned long long>(st.st_size));
                }
                add_dates(file, st);
                if (call.top_level) {
                    base::add_element(file, "device_type", device_type_of(name));
                    if (call.want_pvx) {
                        char library[entry_path_max];
                        bool found = base::format_into(library, "%.*s/%s/pvx_database/media.db",
                                                         static_cast<int>(storage::drives_root.size()),
                                                         storage::drives_root.data(), name) &&
                                     ::access(library, F_OK) == 0;
                        base::add_element(file, "pvx", found ? "true" : "false");
                    }
                }
            }
            if (call.drive_opened) {
                type_word = "cd";
                base::add_element(file, "type", "cd");
            }
        }
    }
    VANTOR_SIMPLE_XML_add_child_node(call.file_list, file);
    ++call.emitted;
    if (call.caching) {
        bool folder_flag = !as_file && !not_file_system;
        call.page.push_back(make_cache_entry(display, shown_path, type_word, folder_flag,
                                             have_stat ? static_cast<uint64_t>(st.st_size) : 0,
                                             have_stat ? static_cast<int32_t>(st.st_mtime) : 0));
    }
}

// Reads the folder: the entries that can ever be listed (hidden names,
// system folders, "NETWORK_SHARE" at the top level and files refused by the
// filter are left out here, as the walk would pass them over anyway), with
// the keys the order needs. False when the folder cannot be read.
bool read_folder(share_list_call &call, const char *search_text, sort_kind kind, std::vector<scan_item> &items,
                 std::vector<char> &names) noexcept {
    // A descriptor of its own for the stream (closedir closes it); the
    // call's descriptor stays open for the status calls of the page.
    base::unique_fd stream_fd(::openat(call.dir_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!stream_fd.valid()) return false;
    DIR *stream = ::fdopendir(stream_fd.get());
    if (stream == nullptr) return false;
    stream_fd.release();
    base::unique_dir closer(stream);
    bool in_cdrom = base::starts_with(call.dir, cdrom_tree) || base::starts_with(call.dir, cdrom_tree_doubled);
    for (;;) {
        errno = 0;
        const dirent *e = ::readdir(stream);
        if (e == nullptr) {
            if (errno != 0) return false;
            break;
        }
        const char *name = e->d_name;
        if (is_hidden_name(name)) continue;  // also "." and ".."
        if (search_text != nullptr && !keyword_matches(name, search_text)) continue;
        scan_item item{};
        item.sort.d_type = e->d_type;
        item.is_folder = e->d_type == DT_DIR;
        if (!item.is_folder && in_cdrom && e->d_type == DT_UNKNOWN) {
            struct stat st;
            item.is_folder = ::fstatat(call.dir_fd, name, &st, 0) == 0 && S_ISDIR(st.st_mode);
        }
        if (item.is_folder) {
            if (call.top_level && std::strcmp(name, "NETWORK_SHARE") == 0) continue;
            if (is_system_folder(name)) continue;
        } else {
            if (!call.show_files) continue;
            item.mime = storage::mime_type_for_path(name);
            if (!mime_passes_filter(item.mime, call.mime_prefix)) continue;
        }
        bool needs_stat = sort_needs_time(kind) || (sort_needs_size(kind) && !sorts_as_folder(e->d_type));
        if (needs_stat) {
            struct stat st;
            if (::fstatat(call.dir_fd, name, &st, 0) == 0) {
                item.sort.size = static_cast<int64_t>(st.st_size);
                item.sort.mtime = static_cast<int32_t>(st.st_mtime);
            }
        }
        std::size_t length = std::strlen(name);
        item.name_offset = names.size();
        names.insert(names.end(), name, name + length + 1);
        item.label_offset = SIZE_MAX;
        if (sort_needs_label(kind) && sorts_as_folder(e->d_type)) {
            char label[512];
            storage::drive_display_name(entry_path(call, name), label);
            item.label_offset = names.size();
            names.insert(names.end(), label, label + std::strlen(label) + 1);
        }
        items.push_back(item);
    }
    return true;
}

base::rc run_share_list(VantorXmlNode response, const share_list_request &request) {
    const char *dir = request.dir;
    uint64_t start = request.start;
    uint64_t count = request.count;
    const bool show_folders = request.show_folders, show_files = request.show_files;
    const bool show_details = request.show_details, top_level = request.top_level;
    const bool want_pvx = request.want_pvx;
    const char *search_text = request.search_text;
    storage::sort_mime_table();
    if (dir == nullptr || std::strlen(dir) >= base::path_max) {
        errno = ENAMETOOLONG;
        std::perror("scandir");
        return rc::failure;
    }
    auto call = std::make_unique<share_list_call>();
    call->response = response;
    call->dir = dir;
    call->show_folders = show_folders;
    call->show_files = show_files;
    call->show_details = show_details;
    call->top_level = top_level;
    call->want_pvx = want_pvx;
    call->caching = request.cache_key != nullptr;
    call->filter = request.type_filter != nullptr ? request.type_filter : "";
    call->mime_prefix = mime_prefix_for_filter(call->filter);
    sort_kind kind = select_sort(request.sort_order, top_level, call->filter, search_text != nullptr);

    std::vector<scan_item> items;
    std::vector<char> names;
    base::unique_fd dir_fd;
    bool network_only = top_level && std::strcmp(call->filter, "network") == 0;
    if (!network_only) {
        dir_fd.reset(::open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        call->dir_fd = dir_fd.get();
        if (!dir_fd.valid() || !read_folder(*call, search_text, kind, items, names)) {
            std::perror("scandir");
            return rc::failure;
        }
    }

    std::vector<sort_entry *> order(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        scan_item &item = items[i];
        item.sort.name = names.data() + item.name_offset;
        item.sort.label = item.label_offset == SIZE_MAX ? "" : names.data() + item.label_offset;
        order[i] = &item.sort;
    }
    sort_entries(order, kind);

    call->file_list = base::add_element(call->response, "fileList", "");
    for (sort_entry *sorted : order) {
        const scan_item &item = *reinterpret_cast<const scan_item *>(sorted);
        const char *name = sorted->name;
        if (item.is_folder) {
            if (top_level && std::strcmp(name, "CDROM") == 0) open_disc_drive(*call);
            ++call->folders_available;
        } else {
            ++call->files_available;
        }
        if (start > 0) {
            --start;
            continue;
        }
        if (count == 0) continue;
        unsigned int disc_kind = media::no_structure;
        if (item.is_folder) {
            disc_kind = vantor_command_server_cdtypedetection(entry_path(*call, name));
            if (disc_kind != media::no_structure) {
                if (!show_files || (call->filter[0] != '\0' && std::strcmp(call->filter, "video") != 0)) continue;
                ++call->files_available;
                --call->folders_available;
            } else if (!show_folders) {
                --call->folders_available;
                continue;
            }
        }
        emit_entry(*call, item, name, disc_kind);
        --count;
    }

    if (top_level && show_folders && std::strcmp(call->filter, "local") != 0) {
        int32_t shares = append_network_shares(call->file_list, show_details, want_pvx);
        call->emitted += shares;
        call->folders_available += shares;
    }
    base::add_number(call->response, "totalFile", call->emitted);
    if (show_folders) base::add_number(call->response, "availableFolder", call->folders_available);
    if (show_files) base::add_number(call->response, "availableFile", call->files_available);
    base::path_buffer convert;
    convert[0] = '\0';
    if (!top_level) {
        if (!local_path_to_share_url(dir, convert))
            base::copy_text(convert, dir);
        base::add_element(call->response, "convertPath", convert);
    }
    if (call->caching && !call->page.empty()) {
        append_cache_record(*request.cache_key, call->files_available, call->folders_available, convert, call->page);
    }
    return rc::ok;
}

}  // namespace

base::rc share_list(VantorXmlNode response, const share_list_request &request) noexcept {
    FILEOP_GUARD_BEGIN
    return run_share_list(response, request);
    FILEOP_GUARD_END(rc::io)
}

}  // namespace listing

extern "C" FILEOP_EXPORT int32_t file_operation_share_list_file(
    VantorXmlNode *response, const char *dir, uint64_t start, uint64_t count, int show_folders, int show_files,
    int show_details, const char *type_filter, int top_level, int sort_order, const char *search_text,
    int write_cache, const void *cache_header, int want_pvx) noexcept {
    FILEOP_GUARD_BEGIN
    listing::listing_key key;
    listing::share_list_request request;
    request.dir = dir;
    request.start = start;
    request.count = count;
    request.show_folders = show_folders != 0;
    request.show_files = show_files != 0;
    request.show_details = show_details != 0;
    request.type_filter = type_filter;
    request.top_level = top_level != 0;
    request.sort_order = sort_order;
    request.search_text = search_text;
    if (write_cache != 0 && cache_header != nullptr) {
        std::memcpy(&key, cache_header, sizeof key);
        request.cache_key = &key;
    }
    request.want_pvx = want_pvx != 0;
    return base::to_host(listing::share_list(response != nullptr ? *response : nullptr, request));
    FILEOP_GUARD_END(base::to_host(base::rc::io))
}
