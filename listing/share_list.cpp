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
#include "base/io.h"
#include "base/owners.h"
#include "base/text.h"
#include "listing/cache_records.h"
#include "listing/dates.h"
#include "listing/filters.h"
#include "listing/folder_scan.h"
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

constexpr std::size_t label_file_bytes = 1023;
constexpr std::size_t entry_path_max = base::path_max + 256 + 2;  // dir, "/", a name

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
        ssize_t used = fd.valid() ? base::read_full(fd.get(), call.labels, label_file_bytes) : 0;
        call.labels[used > 0 ? used : 0] = '\0';
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
// Not noexcept: a page that runs out of memory fails the command (the
// caller's guard), it does not end the player.
void emit_entry(share_list_call &call, const scanned_entry &item, const char *name, unsigned int disc_kind) {
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

// The page: every kept entry counted, the entries from `start` on emitted
// until `count` of them are out.
void emit_page(share_list_call &call, const folder_scan &scan, uint64_t start, uint64_t count) {
    for (const sort_entry *sorted : scan.order) {
        const scanned_entry &item = entry_of(sorted);
        const char *name = sorted->name;
        if (item.is_folder) {
            if (call.top_level && std::strcmp(name, "CDROM") == 0) open_disc_drive(call);
            ++call.folders_available;
        } else {
            ++call.files_available;
        }
        if (start > 0) {
            --start;
            continue;
        }
        if (count == 0) continue;
        unsigned int disc_kind = media::no_structure;
        if (item.is_folder) {
            disc_kind = vantor_command_server_cdtypedetection(entry_path(call, name));
            if (disc_kind != media::no_structure) {
                if (!call.show_files || (call.filter[0] != '\0' && std::strcmp(call.filter, "video") != 0)) continue;
                ++call.files_available;
                --call.folders_available;
            } else if (!call.show_folders) {
                --call.folders_available;
                continue;
            }
        }
        emit_entry(call, item, name, disc_kind);
        --count;
    }
}

// The configured shares at the top level, the counters, convertPath, and the
// page's cache record.
void finish_page(share_list_call &call, const listing_key *cache_key) noexcept {
    if (call.top_level && call.show_folders && std::strcmp(call.filter, "local") != 0) {
        int32_t shares = append_network_shares(call.file_list, call.show_details, call.want_pvx);
        call.emitted += shares;
        call.folders_available += shares;
    }
    base::add_number(call.response, "totalFile", call.emitted);
    if (call.show_folders) base::add_number(call.response, "availableFolder", call.folders_available);
    if (call.show_files) base::add_number(call.response, "availableFile", call.files_available);
    base::path_buffer convert;
    convert[0] = '\0';
    if (!call.top_level) {
        if (!local_path_to_share_url(call.dir, convert)) base::copy_text(convert, call.dir);
        base::add_element(call.response, "convertPath", convert);
    }
    if (call.caching && !call.page.empty())
        append_cache_record(*cache_key, call.files_available, call.folders_available, convert, call.page);
}

base::rc run_share_list(VantorXmlNode response, const share_list_request &request) {
    storage::sort_mime_table();
    if (request.dir == nullptr || std::strlen(request.dir) >= base::path_max) {
        errno = ENAMETOOLONG;
        std::perror("scandir");
        return rc::failure;
    }
    auto call = std::make_unique<share_list_call>();
    call->response = response;
    call->dir = request.dir;
    call->show_folders = request.show_folders;
    call->show_files = request.show_files;
    call->show_details = request.show_details;
    call->top_level = request.top_level;
    call->want_pvx = request.want_pvx;
    call->caching = request.cache_key != nullptr;
    call->filter = request.type_filter != nullptr ? request.type_filter : "";
    call->mime_prefix = mime_prefix_for_filter(call->filter);
    sort_kind kind = select_sort(request.sort_order, call->top_level, call->filter, request.search_text != nullptr);

    folder_scan scan;
    base::unique_fd dir_fd;
    if (!call->top_level || std::strcmp(call->filter, "network") != 0) {
        dir_fd.reset(::open(call->dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        call->dir_fd = dir_fd.get();
        scan_filter filter{call->top_level, call->show_files, call->mime_prefix, request.search_text};
        if (!dir_fd.valid() || !scan_folder(call->dir_fd, call->dir, kind, filter, scan)) {
            std::perror("scandir");
            return rc::failure;
        }
    }
    call->file_list = base::add_element(call->response, "fileList", "");
    emit_page(*call, scan, request.start, request.count);
    finish_page(*call, request.cache_key);
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
