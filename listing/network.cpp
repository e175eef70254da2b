#include "listing/network.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "base/answer.h"
#include "base/export.h"
#include "base/io.h"
#include "base/spawn.h"
#include "listing/cache_records.h"
#include "listing/filters.h"
#include "storage/display_names.h"
#include "storage/mime.h"
#include "storage/paths.h"

extern "C" {
FILEOP_EXPORT int32_t netfs_option[4] = {1, 2, 3, 1};
}

namespace listing {
namespace {

// What a type code of the answer file becomes.
struct type_code {
    std::string_view code;
    const char *is_folder;  // "yes"/"no"
    const char *type_word;  // null: no "type" element (folders)
};
constexpr std::array<type_code, 12> type_codes{{
    {"0", "no", "unknown"},
    {"1", "yes", nullptr},
    {"2", "no", "music"},
    {"3", "no", "photo"},
    {"4", "no", "video"},
    {"5", "no", "others"},
    {"7", "no", "torrent"},
    {"8", "no", "phf"},
    {"9", "no", "music"},
    {"11", "no", "bd_rip"},
    {"12", "no", "dvd_rip"},
    {"13", "no", "video_iso"},
}};
constexpr std::string_view summary_code = "10";

const type_code *find_type_code(const char *code) noexcept {
    for (const type_code &row : type_codes)
        if (row.code == code) return &row;
    return nullptr;
}

// The field line split at "|": the first five fields, the first four cut to
// 255 characters, the fifth up to the next "|"; surplus fields ignored.
void split_fields(netfs_record &out) noexcept {
    std::string_view rest(out.fields_text);
    out.count = 0;
    while (out.count < 5) {
        std::size_t bar = rest.find('|');
        std::string_view f = rest.substr(0, bar);
        if (out.count < 4) {
            if (f.size() > 255) f = f.substr(0, 255);
            base::copy_text(out.cut[out.count], f);
        } else {
            base::copy_text(out.last, f);
        }
        ++out.count;
        if (bar == std::string_view::npos) break;
        rest.remove_prefix(bar + 1);
    }
}

// A record line as the answer file must hold it: text, then a line feed.
// The line feed is removed.
bool take_line(char *line) noexcept {
    std::size_t n = std::strlen(line);
    if (n < 2 || line[n - 1] != '\n') return false;
    line[n - 1] = '\0';
    return true;
}

int32_t parse_time(const char *text) noexcept {
    struct tm t;
    std::memset(&t, 0, sizeof t);
    const char *end = ::strptime(text, "%a %b %d %H:%M:%S %Y", &t);
    if (end == nullptr) return 0;
    t.tm_isdst = -1;
    return static_cast<int32_t>(std::mktime(&t));
}

bool code_is_disc_rip(const char *code) noexcept {
    return std::strcmp(code, "11") == 0 || std::strcmp(code, "12") == 0 || std::strcmp(code, "13") == 0;
}

bool entry_is_listed(const char *code, const char *url, const network_listing &request, const char *mime_prefix) noexcept {
    if (std::strcmp(code, "1") == 0) return request.want_folders;
    const char *word = request.filter_word != nullptr ? request.filter_word : "";
    if (word[0] == '\0') return request.want_files;
    if (!request.want_files) return false;
    if (::strncasecmp(storage::mime_type_for_path(url), mime_prefix, std::strlen(mime_prefix)) == 0) return true;
    if (std::strcmp(word, "video") == 0 && code_is_disc_rip(code)) return true;
    return code[0] == '1' && request.want_folders;
}

// The local mount path of a network address (kind 1 of the path
// translation) with its trailing "/" removed; false for anything else.
bool mount_path_of(const char *url, base::path_buffer &out) noexcept {
    if (!storage::load_path(out, url) || storage::translate_storage_path(out) != storage::network_path) return false;
    std::size_t n = std::strlen(out);
    while (n > 0 && out[n - 1] == '/') out[--n] = '\0';
    return true;
}

}  // namespace

netfs_answer_lock::netfs_answer_lock() noexcept
    : fd_(::open("/tmp/smb.out.lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600)) {
    if (fd_.valid()) (void)base::lock_file(fd_.get(), LOCK_EX);
}

bool open_netfs_answer(const char *answer_file, netfs_answer &answer) noexcept {
    answer.in.reset(std::fopen(answer_file, "re"));
    answer.record.reset(new (std::nothrow) netfs_record);
    return answer.in != nullptr && answer.record != nullptr;
}

const netfs_record *next_netfs_record(netfs_answer &answer) noexcept {
    netfs_record &r = *answer.record;
    for (;;) {
        if (std::fgets(r.fields_text, netfs_line_max, answer.in.get()) == nullptr ||
            std::fgets(r.address_text, netfs_line_max, answer.in.get()) == nullptr)
            return nullptr;
        if (!take_line(r.fields_text) || !take_line(r.address_text)) continue;  // malformed pair
        const char *url = std::strstr(r.address_text, "url=");
        r.address = url != nullptr ? url + 4 : r.address_text;
        split_fields(r);
        return &r;
    }
}

bool format_list_request(char (&line)[512], int64_t offset, int64_t range, int32_t list_type, int filter_code,
                         int sort_order) noexcept {
    return base::format_into(line, "cmd=4&outfile=%s&offset=%lld&range=%lld&listtype=%d&filter=%d&sort=%d",
                               netfs_answer_file, static_cast<long long>(offset), static_cast<long long>(range),
                               static_cast<int>(list_type), filter_code, sort_order);
}

int run_netfs_client(const char *request_line, const char *url) noexcept {
    const char *argv[] = {"netfs_client", request_line, url, nullptr};
    base::spawn_options options;
    options.search_path = false;
    int status = base::run_program(argv, options, netfs_client_program);
    return base::exit_code_of(status);
}

base::rc list_network_folder(VantorXmlNode *response_slot, const char *url, const network_listing &request,
                            const char *answer_file) noexcept {
    netfs_answer answer;
    if (!open_netfs_answer(answer_file, answer)) return base::rc::io;
    storage::sort_mime_table();
    VantorXmlNode response = response_slot != nullptr ? *response_slot : nullptr;
    const char *mime_prefix = mime_prefix_for_filter(request.filter_word);

    VantorXmlNode file_list = base::add_element(response, "fileList", "");
    int32_t count = 0;
    int32_t summary_files = 0;
    int32_t summary_folders = 0;
    FILEOP_GUARD_BEGIN  // the cached page grows with the answer: no room fails the listing
    cache_page page;
    while (const netfs_record *fields = next_netfs_record(answer)) {
        const char *address = fields->address;
        const char *code = fields->field(3);

        if (code == summary_code) {
            if (request.want_folders) base::add_element(response, "availableFolder", fields->field(1));
            if (request.want_files) base::add_element(response, "availableFile", fields->field(0));
            summary_files = std::atoi(fields->field(0));
            summary_folders = std::atoi(fields->field(1));
            continue;
        }
        if (!entry_is_listed(code, address, request, mime_prefix)) continue;

        ++count;
        VantorXmlNode file = base::new_element("file", "");
        if (request.with_details) {
            base::add_element(file, "size", fields->field(1));
            base::add_element(file, "modifyDate", fields->field(2));
        }
        const type_code *row = find_type_code(code);
        if (row != nullptr) {
            base::add_element(file, "isFolder", row->is_folder);
            if (row->type_word != nullptr) base::add_element(file, "type", row->type_word);
        }
        base::add_element(file, "name", fields->field(0));
        base::add_element(file, "path", address);
        VANTOR_SIMPLE_XML_add_child_node(file_list, file);
        VANTOR_SIMPLE_XML_add_child_node(response, file_list);  // moves "fileList" behind the counts

        if (request.cache_key != nullptr) {
            bool folder = row != nullptr && row->type_word == nullptr;
            const char *cached_type = row != nullptr && row->type_word != nullptr ? row->type_word : "";
            page.push_back(make_cache_entry(fields->field(0), address, cached_type, folder,
                                            std::strtoull(fields->field(1), nullptr, 10),
                                            parse_time(fields->field(2))));
        }
    }
    answer = {};

    base::add_number(response, "totalFile", count);
    base::path_buffer convert;
    if (!mount_path_of(url, convert)) convert[0] = '\0';
    base::add_element(response, "convertPath", convert);

    if (request.cache_key != nullptr && count > 0)
        append_cache_record(*request.cache_key, summary_files, summary_folders, convert, page);
    return base::rc::ok;
    FILEOP_GUARD_END(base::rc::io)
}

int32_t append_network_shares(VantorXmlNode parent, bool with_details, bool check_library) noexcept {
    if (parent == nullptr) return 0;
    int32_t count = 0;
    const char *device = "";  // a URL of neither scheme repeats the previous share's value
    for (int n = 0; n < storage::netfs_pairs; ++n) {
        base::unique_malloc<char> name = storage::netfs_variable("netfs_name", n);
        base::unique_malloc<char> url = storage::netfs_variable("netfs_url", n);
        if (name == nullptr || url == nullptr) continue;

        VantorXmlNode file = base::new_element("file", "");
        base::add_element(file, "name", name.get());
        base::add_element(file, "path", url.get());
        if (with_details) {
            base::add_element(file, "modifyDate", "");
            base::add_element(file, "lastAccessDate", "");
            base::add_element(file, "size", "");
            if (base::starts_with(url.get(), "smb://"))
                device = "samba";
            else if (base::starts_with(url.get(), "nfs://"))
                device = "nfs";
            base::add_element(file, "device_type", device);
        }
        if (check_library) {
            base::path_buffer mount;
            bool library = mount_path_of(url.get(), mount) && base::append_text(mount, "/pvx_database/media.db") &&
                           isfileexist(mount) != 0;
            base::add_element(file, "pvx", library ? "true" : "false");
        }
        base::add_element(file, "isFolder", "yes");
        VANTOR_SIMPLE_XML_add_child_node(parent, file);
        ++count;
    }
    return count;
}

bool local_path_to_share_url(const char *local_path, char (&out)[base::path_max]) noexcept {
    // Only the share whose display name is the folder below NETWORK_SHARE is
    // asked for its mount path: asking for every configured share could
    // make the network library mount them all.
    constexpr std::string_view mounts = storage::network_share_tree;
    if (local_path == nullptr || !base::starts_with(local_path, mounts)) return false;
    std::string_view folder(local_path + mounts.size());
    folder = folder.substr(0, folder.find('/'));
    for (int n = 0; n < storage::netfs_pairs; ++n) {
        base::unique_malloc<char> name = storage::netfs_variable("netfs_name", n);
        if (name == nullptr || folder != name.get()) continue;
        base::unique_malloc<char> url = storage::netfs_variable("netfs_url", n);
        if (url == nullptr) continue;
        base::path_buffer mount;
        if (!mount_path_of(url.get(), mount) || mount[0] == '\0') continue;
        std::size_t m = std::strlen(mount);
        if (std::strncmp(local_path, mount, m) != 0 || (local_path[m] != '/' && local_path[m] != '\0')) continue;
        std::string_view share(url.get());
        while (!share.empty() && share.back() == '/') share.remove_suffix(1);
        return base::format_into(out, "%.*s%s", static_cast<int>(share.size()), share.data(), local_path + m);
    }
    return false;
}

}  // namespace listing
