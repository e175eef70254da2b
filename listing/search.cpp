#include "listing/search.h"

#include <strings.h>
#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "base/answer.h"
#include "base/result.h"
#include "base/text.h"
#include "listing/dates.h"
#include "listing/filters.h"
#include "listing/network.h"
#include "listing/search_classification.h"
#include "listing/search_walk.h"
#include "listing/share_list.h"
#include "storage/mime.h"
#include "storage/paths.h"

namespace listing {
namespace {

using base::rc;

constexpr int max_open_folders = 20;
constexpr uint64_t default_range = 99999;

// The walk context of one deep search; each search has its own, handed to
// the walk callback as its context pointer.
struct walk_context {
    uint64_t skip;       // matches still to pass over before the page
    uint64_t remaining;  // matches still to write into the page
    int want_folders;
    int want_files;
    int with_details;
    const char *filter_word;
    const char *keyword;
    VantorXmlNode file_list;
    int written;
    int available_file;
    int available_folder;
};

// One match written into the page: name, path, the file or folder form, and
// with details the size and both dates.
void write_match(walk_context &ctx, walk_entry &entry, const char *type_word) noexcept {
    VantorXmlNode file = base::add_element(ctx.file_list, "file", "");
    base::add_element(file, "name", entry.path + entry.base);
    base::add_element(file, "path", entry.path);
    if (type_word != nullptr) {
        base::add_element(file, "isFolder", "no");
        base::add_element(file, "type", type_word);
    } else {
        base::add_element(file, "isFolder", "yes");
    }
    if (!ctx.with_details) return;
    const struct stat *st = walk_status(entry);
    if (st == nullptr) return;  // gone since it was read
    base::add_unsigned(file, "size", static_cast<unsigned long long>(st->st_size));
    char date[32];
    format_date(st->st_mtime, false, date);
    base::add_element(file, "modifyDate", date);
    format_date(st->st_atime, false, date);
    base::add_element(file, "lastAccessDate", date);
}

// A counted match: passed over while the page has not started, written while
// it lasts, only counted after it.
void take_match(walk_context &ctx, walk_entry &entry, const char *type_word) noexcept {
    if (type_word != nullptr) ++ctx.available_file;
    else ++ctx.available_folder;
    if (ctx.skip != 0) {
        --ctx.skip;
        return;
    }
    if (ctx.remaining == 0) return;
    write_match(ctx, entry, type_word);
    ++ctx.written;
    --ctx.remaining;
}

// The walk callback of the deep search: the search classification applied to
// one entry; walk_stop when the context is null.
int search_visit(walk_entry &entry, void *context) noexcept {
    auto *ctx = static_cast<walk_context *>(context);
    if (ctx == nullptr) return walk_stop;
    search_candidate candidate;
    candidate.name = entry.path + entry.base;
    candidate.path = entry.path;
    candidate.is_start = entry.level == 0;
    candidate.is_folder = entry.kind == walk_folder;
    // Free: the walker knows the type from the folder or has stat'ed the entry.
    candidate.is_regular = !candidate.is_folder && walk_is_regular(entry);
    search_filter filter;
    filter.keyword = ctx->keyword;
    filter.filter_word = ctx->filter_word;
    filter.want_folders = ctx->want_folders != 0;
    filter.want_files = ctx->want_files != 0;
    search_result verdict = classify_search_entry(candidate, filter);
    switch (verdict.verdict) {
    case search_verdict::skip_subtree:
        return walk_skip_subtree;
    case search_verdict::pass_over:
        return walk_continue;
    case search_verdict::list_file:
        take_match(*ctx, entry, verdict.type_word != nullptr ? verdict.type_word : "others");
        return walk_continue;  // a disc structure's contents are searched as well
    case search_verdict::list_folder:
        take_match(*ctx, entry, nullptr);
        return walk_continue;
    }
    return walk_continue;
}

}  // namespace

base::rc deep_search(VantorXmlNode response, const char *full_path, const search_request &request,
                    const walk_hooks *hooks) noexcept {
    walk_context ctx{};
    ctx.skip = request.offset;
    ctx.remaining = request.range;
    ctx.want_folders = request.want_folders;
    ctx.want_files = request.want_files;
    ctx.with_details = request.with_details;
    ctx.filter_word = request.filter_word != nullptr ? request.filter_word : "";
    ctx.keyword = request.keyword != nullptr ? request.keyword : "";
    storage::sort_mime_table();

    ctx.file_list = base::add_element(response, "fileList", "");

    if (walk_tree(full_path, max_open_folders, search_visit, &ctx, hooks) < 0)
        return errno == ESTALE ? rc::stale_handle : rc::io;

    base::add_number(response, "totalFile", ctx.written);
    if (ctx.want_folders) base::add_number(response, "availableFolder", ctx.available_folder);
    if (ctx.want_files) base::add_number(response, "availableFile", ctx.available_file);
    base::path_buffer convert{};
    if (base::copy_text(convert, full_path) &&
        storage::translate_storage_path(convert) == storage::local_path) {
        std::size_t n = std::strlen(convert);
        while (n > 0 && convert[n - 1] == '/') convert[--n] = '\0';
    } else {
        convert[0] = '\0';
    }
    base::add_element(response, "convertPath", convert);
    return rc::ok;
}

namespace {

// The search request line of the network client; "&level=0" asks it to
// search the subfolders too.
bool format_search_request(std::span<char> line, int64_t offset, int64_t range, int32_t list_type,
                           int filter_code, const char *keyword, bool subfolders) noexcept {
    return base::format_into(line, "cmd=4&outfile=%s&offset=%lld&range=%lld&listtype=%d&filter=%d&keyword=%s%s",
                               netfs_answer_file, static_cast<long long>(offset), static_cast<long long>(range),
                               static_cast<int>(list_type), filter_code, keyword, subfolders ? "&level=0" : "");
}

base::rc network_search(VantorXmlNode *response_slot, const char *url, int64_t offset, int64_t range,
                       const search_request &request, bool subfolders) noexcept {
    char line[base::path_max * 2];
    if (!format_search_request(line, offset, range, netfs_list_type(request.want_folders, request.want_files),
                               network_filter_code(request.filter_word), request.keyword, subfolders))
        return rc::bad_argument;
    network_listing listing;
    listing.want_folders = request.want_folders;
    listing.want_files = request.want_files;
    listing.with_details = request.with_details;
    listing.filter_word = request.filter_word;
    return run_netfs_request(line, url, [&]() noexcept {
        return list_network_folder(response_slot, url, listing) != rc::ok ? rc::io : rc::ok;
    });
}

}  // namespace

base::rc search_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    if (request == nullptr || request->args == nullptr || request->args->argc < 10) return rc::failure;
    char **argv = request->args->argv;
    base::path_buffer path;
    if (!storage::load_path(path, argv[1])) return rc::bad_path;
    std::size_t length = std::strlen(path);
    if (length > 0 && path[length - 1] == '/') path[--length] = '\0';  // one trailing "/"

    int64_t offset = argv[2] != nullptr ? std::atoll(argv[2]) : 0;
    int64_t range = argv[3] != nullptr ? std::atoll(argv[3]) : 0;
    if (offset == 0 && range == 0) range = static_cast<int64_t>(default_range);
    search_request ask;
    ask.offset = static_cast<uint64_t>(offset);
    ask.range = static_cast<uint64_t>(range);
    ask.want_folders = !base::is_false_word(argv[4]);
    ask.want_files = !base::is_false_word(argv[5]);
    ask.with_details = !base::is_false_word(argv[6]);
    ask.filter_word = argv[7] != nullptr ? argv[7] : "";
    ask.keyword = argv[8] != nullptr ? argv[8] : "";
    bool subfolders = base::is_true_word(argv[9]);

    if (base::is_network_address(path)) return network_search(response_slot, path, offset, range, ask, subfolders);

    if (path[0] == '\0') return rc::io;
    base::path_buffer full;
    if (std::strncmp(path, storage::drives_root.data(), storage::drives_root.size()) == 0) {
        std::memcpy(full, path, length + 1);
    } else if (!base::format_into(full, "%.*s/%s", static_cast<int>(storage::drives_root.size()),
                                  storage::drives_root.data(), path)) {
        return rc::bad_path;
    }
    if (!storage::path_allowed(full)) return rc::bad_path;  // the confinement switch
    if (!subfolders) {
        share_list_request page;
        page.dir = full;
        page.start = ask.offset;
        page.count = ask.range;
        page.show_folders = ask.want_folders;
        page.show_files = ask.want_files;
        page.show_details = ask.with_details;
        page.type_filter = ask.filter_word;
        page.search_text = ask.keyword;
        return share_list(base::response_of(response_slot), page) != rc::ok ? rc::io : rc::ok;
    }
    rc searched = deep_search(base::response_of(response_slot), full, ask);
    if (searched == rc::stale_handle) return searched;
    return searched != rc::ok ? rc::io : rc::ok;
}

}  // namespace listing
