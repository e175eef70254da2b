#include "listing/list_command.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/answer.h"
#include "base/io.h"
#include "base/owners.h"
#include "base/result.h"
#include "base/text.h"
#include "listing/cache_records.h"
#include "listing/dates.h"
#include "listing/filters.h"
#include "listing/network.h"
#include "listing/share_list.h"
#include "listing/sort_orders.h"
#include "storage/paths.h"

namespace listing {
namespace {

constexpr int64_t whole_folder_range = 99999;

// Reads exactly n bytes; false at end of file or on a short read.
bool read_record(int fd, void *out, std::size_t n) noexcept {
    return base::read_full(fd, out, n) == static_cast<ssize_t>(n);
}

template <std::size_t N>
std::string_view slot_text(const char (&slot)[N]) noexcept {
    return std::string_view(slot, ::strnlen(slot, N));
}

// The answer of a cached record: entries, counts and convertPath.
void answer_from_cache(VantorXmlNode response, int fd, const cache_header &header, const listing_key &key,
                       bool with_details) noexcept {
    if (header.entry_count <= 0) return;  // an empty page answers nothing
    VantorXmlNode file_list = base::add_element(response, "fileList", "");
    for (int32_t i = 0; i < header.entry_count; ++i) {
        cache_entry e;
        if (!read_record(fd, &e, sizeof e)) break;
        char name[sizeof e.name + 1] = {};
        char path[sizeof e.path + 1] = {};
        char type_word[sizeof e.type_word + 1] = {};
        base::copy_text(name, slot_text(e.name));
        base::copy_text(path, slot_text(e.path));
        base::copy_text(type_word, slot_text(e.type_word));
        VantorXmlNode file = base::new_element("file", "");
        base::add_element(file, "name", name);
        base::add_element(file, "path", path);
        if (e.is_folder == 0) base::add_element(file, "type", type_word);
        if (with_details) {
            char date[32];
            format_date(static_cast<time_t>(e.mtime), true, date);
            base::add_element(file, "modifyDate", date);
            base::add_element(file, "lastAccessDate", "");
            base::add_unsigned(file, "size", e.size);
        }
        base::add_element(file, "isFolder", e.is_folder != 0 ? "yes" : "no");
        VANTOR_SIMPLE_XML_add_child_node(file_list, file);
    }
    base::add_number(response, "totalFile", header.entry_count);
    if (key.want_folders != 0) base::add_number(response, "availableFolder", header.available_folders);
    if (key.want_files != 0) base::add_number(response, "availableFile", header.available_files);
    char convert[sizeof header.convert_path + 1] = {};
    base::copy_text(convert, slot_text(header.convert_path));
    base::add_element(response, "convertPath", convert);
}

bool same_page(const listing_key &a, const listing_key &b) noexcept {
    return slot_text(a.path) == slot_text(b.path) && slot_text(a.filter_word) == slot_text(b.filter_word) &&
           a.want_folders == b.want_folders && a.sort_order == b.sort_order && a.want_files == b.want_files &&
           a.offset == b.offset && a.range == b.range;
}

const char *arg(CommandArgs *args, int i) noexcept { return i < args->argc ? args->argv[i] : nullptr; }

}  // namespace

int cache_lookup(VantorXmlNode *response_slot, const listing_key &key, const char *request_path, bool with_details,
                 const char *file) noexcept {
    base::unique_fd fd(::open(file, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return cache_store;
    std::string_view request(request_path);
    int result = cache_skip;
    bool matched = false;
    cache_header header;
    while (read_record(fd.get(), &header, sizeof header)) {
        std::string_view cached = slot_text(header.key.path);
        if (cached.size() < request.size() && request.find(cached) != std::string_view::npos) {
            result = cache_skip;  // an enclosing folder is cached
            break;
        }
        if (same_page(header.key, key)) {
            matched = true;
            break;
        }
        if (header.entry_count < 0) break;  // not a record this cache writes
        off_t skip = static_cast<off_t>(header.entry_count) * static_cast<off_t>(sizeof(cache_entry));
        if (::lseek(fd.get(), skip, SEEK_CUR) < 0) break;
        result = cache_store;
    }
    if (matched) {
        answer_from_cache(response_slot != nullptr ? *response_slot : nullptr, fd.get(), header, key, with_details);
        result = cache_answered;
    }
    fd.reset();
    if (result == cache_store && filesize(file) >= cache_limit) ::unlink(file);
    return result;
}

base::rc list_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    if (request == nullptr || request->args == nullptr) return base::rc::failure;
    CommandArgs *args = request->args;
    int64_t offset = 0;
    int64_t range = 0;
    if (const char *a = arg(args, 2)) offset = std::atoll(a);
    if (const char *a = arg(args, 3)) range = std::atoll(a);
    if (offset == 0 && range == 0) range = whole_folder_range;
    bool want_folders = !base::is_false_word(arg(args, 4));
    bool want_files = !base::is_false_word(arg(args, 5));
    bool with_details = !base::is_false_word(arg(args, 6));
    const char *filter_word = arg(args, 7) != nullptr ? arg(args, 7) : "";
    int sort_order = 0;
    bool use_cache = false;
    bool extra_flag = false;
    if (args->argc >= 10) {
        sort_order = sort_order_of(arg(args, 8));
        use_cache = base::is_true_word(arg(args, 9));
        if (args->argc == 11) extra_flag = base::is_true_word(arg(args, 10));
    }

    base::path_buffer path;
    if (!storage::load_path(path, arg(args, 1) != nullptr ? arg(args, 1) : "")) return base::rc::bad_path;
    std::size_t length = std::strlen(path);
    if (length > 0 && path[length - 1] == '/') path[--length] = '\0';

    listing_key key = make_listing_key(offset, range, want_folders, want_files, sort_order, filter_word, path);
    int state = cache_skip;
    // A path that does not fit the key whole is neither answered from nor
    // written to the cache: its cut key could name another folder.
    if (use_cache && length > 0 && length < sizeof key.path) {
        state = cache_lookup(response_slot, key, path, with_details);
        if (state == cache_answered) return base::rc::ok;
    }
    bool caching = state == cache_store;

    if (!base::is_network_address(path)) {
        base::path_buffer full;
        bool fits = base::starts_with(path, storage::drives_root)
                        ? base::copy_text(full, path)
                        : base::format_into(full, "%.*s%s%s", static_cast<int>(storage::drives_root.size()),
                                              storage::drives_root.data(), length > 0 ? "/" : "", path);
        if (!fits || !storage::path_allowed(full)) return base::rc::bad_path;
        share_list_request page;
        page.dir = full;
        page.start = static_cast<uint64_t>(offset);
        page.count = static_cast<uint64_t>(range);
        page.show_folders = want_folders;
        page.show_files = want_files;
        page.show_details = with_details;
        page.type_filter = filter_word;
        page.top_level = length == 0;
        page.sort_order = sort_order;
        page.cache_key = caching ? &key : nullptr;
        page.want_pvx = extra_flag;
        base::rc r = share_list(base::response_of(response_slot), page);
        return r == base::rc::failure ? base::rc::bad_path : r;
    }

    char line[512];
    if (!format_list_request(line, offset, range, netfs_list_type(want_folders, want_files),
                             network_filter_code(filter_word), sort_order))
        return base::rc::bad_argument;
    network_listing listing;
    listing.want_folders = want_folders;
    listing.want_files = want_files;
    listing.with_details = with_details;
    listing.filter_word = filter_word;
    listing.cache_key = caching ? &key : nullptr;
    return run_netfs_request(line, path, [&]() noexcept {
        return list_network_folder(response_slot, path, listing) != base::rc::ok ? base::rc::io : base::rc::ok;
    });
}

}  // namespace listing
