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
#include "base/spawn.h"
#include "base/text.h"
#include "listing/filters.h"
#include "listing/network.h"
#include "listing/sort_orders.h"
#include "media/disc.h"
#include "storage/display_names.h"
#include "storage/mime.h"
#include "storage/paths.h"

namespace listing {
namespace {

using base::rc;

constexpr const char *cdrom_prefix = "/opt/vtrhttpd/localhost.drives/CDROM";
constexpr const char *cdrom_prefix_doubled = "/opt/vtrhttpd/localhost.drives//CDROM";
constexpr std::size_t answer_line = 4095;  // up to 4094 characters and the line feed
constexpr std::size_t field_max = 255;
constexpr int field_count = 5;

struct sort_word {
    const char *word;
    int order;
};
constexpr sort_word sort_words[] = {
    {"name_dsc", 1}, {"size_asc", 2}, {"size_dsc", 3}, {"date_asc", 4}, {"date_dsc", 5},
};

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

struct scanned {
    sort_entry sort;
    std::size_t name_offset;
    std::size_t label_offset;  // SIZE_MAX: none
};

// Reads the parent folder with the keys its order needs.
bool scan_folder(const char *parent, sort_kind kind, std::vector<scanned> &items, std::vector<char> &names) {
    base::unique_fd fd(::open(parent, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.valid()) return false;
    base::unique_dir dir(::fdopendir(fd.get()));
    if (!dir) return false;
    int dir_fd = fd.release();  // owned by the stream now
    while (dirent *e = ::readdir(dir.get())) {
        const char *name = e->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
        scanned item{};
        item.sort.d_type = e->d_type;
        bool needs_stat = sort_needs_time(kind) || (sort_needs_size(kind) && !sorts_as_folder(e->d_type));
        if (needs_stat) {
            struct stat st;
            if (::fstatat(dir_fd, name, &st, 0) == 0) {
                item.sort.size = static_cast<int64_t>(st.st_size);
                item.sort.mtime = static_cast<int32_t>(st.st_mtime);
            }
        }
        item.name_offset = names.size();
        names.insert(names.end(), name, name + std::strlen(name) + 1);
        item.label_offset = SIZE_MAX;
        if (sort_needs_label(kind) && sorts_as_folder(e->d_type) && name[0] != '.' &&
            std::strcmp(name, "NETWORK_SHARE") != 0) {
            base::path_buffer path;
            char label[512];
            if (base::format_into(path, "%s/%s", parent, name)) storage::drive_display_name(path, label);
            else base::copy_text(label, "Unknown");
            item.label_offset = names.size();
            names.insert(names.end(), label, label + std::strlen(label) + 1);
        }
        items.push_back(item);
    }
    return true;
}

base::rc count_local(const char *parent, const char *name, const char *filter_word, int sort_order,
                    bool show_folders, bool show_files, index_count &out) {
    bool in_cdrom = std::strncmp(parent, cdrom_prefix, std::strlen(cdrom_prefix)) == 0 ||
                    std::strncmp(parent, cdrom_prefix_doubled, std::strlen(cdrom_prefix_doubled)) == 0;
    bool at_root = storage::drives_root == parent;
    // The drive-label orders at the drives root whatever the filter word.
    sort_kind kind = select_sort(sort_order, at_root, "local", false);
    std::vector<scanned> items;
    std::vector<char> names;
    if (!scan_folder(parent, kind, items, names)) return rc::io;
    std::vector<sort_entry *> order(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        items[i].sort.name = names.data() + items[i].name_offset;
        items[i].sort.label = items[i].label_offset == SIZE_MAX ? "" : names.data() + items[i].label_offset;
        order[i] = &items[i].sort;
    }
    sort_entries(order, kind);

    storage::sort_mime_table();
    const char *prefix = mime_prefix_for_filter(filter_word);
    out = {};
    for (const sort_entry *e : order) {
        const char *entry = e->name;
        if (entry[0] == '.') continue;
        bool folder = e->d_type == DT_DIR;
        if (!folder && in_cdrom && e->d_type == DT_UNKNOWN) {
            base::path_buffer path;
            folder = base::format_into(path, "%s/%s", parent, entry) && isdir(path) == 1;
        }
        if (folder) {
            if (at_root && std::strcmp(entry, "NETWORK_SHARE") == 0) continue;
            if (is_system_folder(entry)) continue;
            if (!folder_counted(parent, entry, filter_word, show_folders, show_files)) continue;
        } else {
            if (!show_files) continue;
            if (!mime_passes_filter(storage::mime_type_for_path(entry), prefix)) continue;
        }
        ++out.total;
        if (std::strcmp(entry, name) == 0) out.index = out.total;
    }
    return rc::ok;
}

// One line of the answer file as the C library's fgets gives it; false at
// the end of the file. `complete`: non-empty and ended by a line feed (which
// is removed).
bool read_answer_line(FILE *in, char *line, bool &complete) noexcept {
    if (std::fgets(line, static_cast<int>(answer_line), in) == nullptr) return false;
    std::size_t n = std::strlen(line);
    complete = n > 1 && line[n - 1] == '\n';
    if (n > 0 && line[n - 1] == '\n') line[n - 1] = '\0';
    return true;
}

// The first five "|"-separated fields, each cut to 255 characters; further
// fields are ignored.
void split_fields(const char *line, char (&fields)[field_count][field_max + 1]) noexcept {
    for (auto &f : fields) f[0] = '\0';
    const char *p = line;
    for (int i = 0; i < field_count; ++i) {
        const char *bar = std::strchr(p, '|');
        std::size_t length = bar != nullptr ? static_cast<std::size_t>(bar - p) : std::strlen(p);
        std::size_t kept = length < field_max ? length : field_max;
        std::memcpy(fields[i], p, kept);
        fields[i][kept] = '\0';
        if (bar == nullptr) break;
        p = bar + 1;
    }
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

int index_sort_order(const char *word) noexcept {
    if (word == nullptr) return 0;
    for (const sort_word &w : sort_words)
        if (::strcasecmp(word, w.word) == 0) return w.order;
    return 0;
}

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
    FILE *in = std::fopen(answer_file, "re");
    if (in == nullptr) return;
    std::unique_ptr<FILE, int (*)(FILE *)> closer(in, &std::fclose);
    storage::sort_mime_table();
    const char *word = filter_word != nullptr ? filter_word : "";
    const char *prefix = mime_prefix_for_filter(word);
    std::unique_ptr<char[]> field_line(new (std::nothrow) char[answer_line]);
    std::unique_ptr<char[]> address_line(new (std::nothrow) char[answer_line]);
    if (!field_line || !address_line) return;
    char *fields_text = field_line.get();
    char *address_text = address_line.get();
    char fields[field_count][field_max + 1];
    for (;;) {
        bool fields_complete = false, address_complete = false;
        if (!read_answer_line(in, fields_text, fields_complete)) break;
        if (!read_answer_line(in, address_text, address_complete)) break;
        if (!fields_complete || !address_complete) continue;
        const char *address = address_text;
        if (const char *url = std::strstr(address_text, "url=")) address = url + 4;
        split_fields(fields_text, fields);
        const char *entry = fields[0];
        const char *kind = fields[3];
        if (word[0] != '\0' && kind[0] != '1' && !mime_passes_filter(storage::mime_type_for_path(address), prefix))
            continue;
        if (never_counted(kind)) continue;
        bool is_folder_kind = std::strcmp(kind, "1") == 0;
        if (show_folders && !show_files && !is_folder_kind) continue;
        if (!show_folders && show_files && is_folder_kind) continue;
        ++out.total;
        if (std::strcmp(entry, name) == 0) out.index = out.total;
    }
}

base::rc get_user_storage_file_index(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    if (request == nullptr || request->args == nullptr || request->args->argc < 6) return rc::failure;
    char **argv = request->args->argv;
    // The existence test uses the translated path...
    base::path_buffer translated;
    int32_t kind = storage::load_and_translate(translated, argv[1]);
    struct stat st;
    if ((kind != storage::network_path && kind != storage::local_path) || ::stat(translated, &st) != 0)
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
    int sort_order = index_sort_order(argv[3]);
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
    netfs_answer_lock answer_held;  // from the client's start to the end of the reading
    int status = run_netfs_client(line, parent);
    if (status != 0) return base::from_host(vtr_network_error_handler(status));
    count_network_answer(netfs_answer_file, name, filter_word, show_folders, show_files, count);
    add_index_answer(response, count);
    return rc::ok;
}

}  // namespace listing
