#include "listing/file_index.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "base/answer.h"
#include "base/export.h"
#include "base/owners.h"
#include "base/result.h"
#include "base/text.h"
#include "listing/filters.h"
#include "listing/folder_scan.h"
#include "listing/network.h"
#include "listing/sort_orders.h"
#include "media/disc.h"
#include "storage/display_names.h"
#include "storage/mime.h"
#include "storage/paths.h"

namespace listing {
namespace {

using base::rc;

bool video_friendly(const char *filter_word) noexcept {
    return filter_word[0] == '\0' || std::strcmp(filter_word, "video") == 0;
}

bool photo_or_music(const char *filter_word) noexcept {
    return std::strcmp(filter_word, "photo") == 0 || std::strcmp(filter_word, "music") == 0;
}

// Whether a folder of the listing is counted, by the flags and the filter;
// the disc test is made only where the answer depends on it.
bool folder_counted(const char *parent, const char *name, const char *filter_word, bool show_folders,
                    bool show_files) noexcept {
    enum class need { none, disc, ordinary, all };
    need rule;
    if (!show_folders) rule = show_files && video_friendly(filter_word) ? need::disc : need::none;
    else if (!show_files && video_friendly(filter_word)) rule = need::ordinary;
    else if (photo_or_music(filter_word)) rule = need::ordinary;
    else rule = need::all;
    if (rule == need::none) return false;
    if (rule == need::all) return true;
    base::path_buffer path;
    if (!base::format_into(path, "%s/%s", parent, name)) return false;
    bool disc = vantor_command_server_cdtypedetection(path) != media::no_structure;
    return rule == need::disc ? disc : !disc;
}

base::rc count_local(const char *parent, const char *name, const char *filter_word, int sort_order,
                    bool show_folders, bool show_files, index_count &out) {
    bool at_root = storage::drives_root == parent;
    // The drive-label orders at the drives root whatever the filter word.
    sort_kind kind = select_sort(sort_order, at_root, "local", false);
    storage::sort_mime_table();
    base::unique_fd fd(::open(parent, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    folder_scan scan;
    scan_filter filter{at_root, show_files, mime_prefix_for_filter(filter_word), nullptr};
    if (!fd.valid() || !scan_folder(fd.get(), parent, kind, filter, scan)) return rc::io;
    out = {};
    for (const sort_entry *e : scan.order) {
        if (entry_of(e).is_folder && !folder_counted(parent, e->name, filter_word, show_folders, show_files))
            continue;
        ++out.total;
        if (std::strcmp(e->name, name) == 0) out.index = out.total;
    }
    return rc::ok;
}

bool never_counted(const char *kind) noexcept {
    return std::strcmp(kind, "0") == 0 || std::strcmp(kind, "6") == 0 || std::strcmp(kind, "9") == 0 ||
           std::strcmp(kind, "10") == 0;
}

void add_index_answer(VantorXmlNode response, const index_count &count) noexcept {
    char text[16] = "";
    if (count.index > 0) std::snprintf(text, sizeof text, "%d", count.index);
    base::add_element(response, "index", text);
    base::add_number(response, "total", count.total);
}

}  // namespace

base::rc count_local_index(const char *parent, const char *name, const char *filter_word, int sort_order,
                          bool show_folders, bool show_files, index_count &out) noexcept {
    FILEOP_GUARD_BEGIN
    return count_local(parent, name, filter_word != nullptr ? filter_word : "", sort_order, show_folders,
                       show_files, out);
    FILEOP_GUARD_END(rc::io)
}

void count_network_answer(const char *answer_file, const char *name, const char *filter_word, bool show_folders,
                          bool show_files, index_count &out) noexcept {
    out = {};
    netfs_answer answer;
    if (!open_netfs_answer(answer_file, answer)) return;
    storage::sort_mime_table();
    const char *word = filter_word != nullptr ? filter_word : "";
    const char *prefix = mime_prefix_for_filter(word);
    while (const netfs_record *record = next_netfs_record(answer)) {
        const char *kind = record->field(3);
        if (word[0] != '\0' && kind[0] != '1' &&
            !mime_passes_filter(storage::mime_type_for_path(record->address), prefix))
            continue;
        if (never_counted(kind)) continue;
        bool is_folder_kind = std::strcmp(kind, "1") == 0;
        if (show_folders && !show_files && !is_folder_kind) continue;
        if (!show_folders && show_files && is_folder_kind) continue;
        ++out.total;
        if (std::strcmp(record->field(0), name) == 0) out.index = out.total;
    }
}

base::rc get_user_storage_file_index(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    if (request == nullptr || request->args == nullptr || request->args->argc < 6) return rc::failure;
    char **argv = request->args->argv;
    // The existence test uses the translated path...
    base::path_buffer translated;
    int32_t kind = storage::load_and_translate(translated, argv[1]);
    struct stat st;
    if (!storage::is_translated(kind) || ::stat(translated, &st) != 0)
        return rc::bad_path;
    // ...while the split and the count use the entry as the client gave it.
    base::path_buffer given;
    if (!storage::load_path(given, argv[1])) return rc::bad_path;
    std::size_t length = std::strlen(given);
    while (length > 0 && given[length - 1] == '/') given[--length] = '\0';
    char *slash = std::strrchr(given, '/');
    if (slash == nullptr) return rc::bad_path;
    *slash = '\0';
    const char *parent = given;
    const char *name = slash + 1;

    const char *filter_word = argv[2] != nullptr ? argv[2] : "";
    int sort_order = sort_order_of(argv[3]);
    bool show_folders = !base::is_false_word(argv[4]);
    bool show_files = !base::is_false_word(argv[5]);
    VantorXmlNode response = response_slot != nullptr ? *response_slot : nullptr;
    index_count count;

    if (!base::is_network_address(parent)) {
        base::rc r = count_local_index(parent, name, filter_word, sort_order, show_folders, show_files, count);
        if (r != rc::ok) return r;
        add_index_answer(response, count);
        return rc::ok;
    }

    char line[512];
    if (!base::format_into(line, "cmd=4&outfile=%s&listtype=%d&filter=%d&sort=%d", netfs_answer_file,
                             static_cast<int>(netfs_list_type(show_folders, show_files)),
                             network_filter_code(filter_word), sort_order))
        return rc::bad_argument;
    base::rc r = run_netfs_request(line, parent, [&]() noexcept {
        count_network_answer(netfs_answer_file, name, filter_word, show_folders, show_files, count);
        return rc::ok;
    });
    if (r != rc::ok) return r;
    add_index_answer(response, count);
    return rc::ok;
}

}  // namespace listing
