// The run entry with arbitrary argument vectors: any sub-command name (a
// known one picked by a one-byte word, or raw bytes), any count, any bytes.
//
// Input: words separated by NUL; a word holding the single byte 0x01 ends a
// request (at most four requests per input, so a selection, a listing with
// its cache and a later command can meet). A one-byte first word below the
// table size names a known sub-command. Before every input the drive tree
// and the /tmp state files are rebuilt.
//
// Confinement: every ".." in an argument becomes "._", a path beginning with
// the drives root continues with "/" and any other absolute path is put
// below the drives root, so no path leaves the drives root (a tmpfs of the
// sandbox, rebuilt per input). File creation uses the client's path as it
// stands, so a relative one lands in the working folder: the harness works
// in a scratch folder under the sandbox's /tmp. Sub-commands that start
// detached threads or long-running children (the batch copy, move and
// delete from the selection, downloads, ripping) are not run.
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <ftw.h>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_common.h"

extern "C" int32_t VANTOR_COMMAND_SERVER_func_run_command_file_operation(CommandRequest *, void *, void *,
                                                                       VantorXmlNode);

namespace {

constexpr std::array<const char *, 29> known{
    "list_user_storage_file",
    "search_user_storage_file",
    "create_user_storage_file",
    "write_user_storage_file",
    "read_user_storage_file",
    "get_user_storage_file_info",
    "copy_user_storage_file",
    "move_user_storage_file",
    "backup_user_storage_file",
    "delete_user_storage_file",
    "create_user_storage_directory",
    "rename_user_storage_file",
    "select_user_storage_file_to_list",
    "search_user_storage_subtitle",
    "calculate_user_storage_file_hash",
    "verify_user_storage_download_status",
    "get_user_storage_file_index",
    "create_app_storage",
    "change_app_storage_password",
    "create_app_storage_file",
    "write_app_storage_file",
    "read_app_storage_file",
    "get_app_storage_file_info",
    "copy_app_storage_file",
    "delete_app_storage_file",
    "delete_app_storage",
    "delete_all_app_storage",
    "list_user_storage_file",  // listings weigh twice
    "select_user_storage_file_to_list",
};

// Names never run: they start threads or children that outlive the request.
bool excluded(std::string_view name) {
    for (std::string_view n : {"copy_user_storage_file_from_list", "move_user_storage_file_from_list",
                               "delete_user_storage_file_from_list", "download_user_storage_file"})
        if (name == n) return true;
    // The ripping group: any name with "ripping" that is in neither other group.
    return name.find("ripping") != std::string_view::npos && name.find("_user_") == std::string_view::npos &&
           name.find("_app_") == std::string_view::npos;
}

std::string confine(std::string word) {
    for (std::size_t at = word.find(".."); at != std::string::npos; at = word.find("..", at)) word[at + 1] = '_';
    constexpr std::string_view root = "/opt/vtrhttpd/localhost.drives";
    bool under_root = word.compare(0, root.size(), root) == 0;
    if (under_root && word.size() > root.size() && word[root.size()] != '/') word.insert(root.size(), "/");
    if (!under_root && !word.empty() && word[0] == '/') word.insert(0, root);
    return word;
}

int remove_entry(const char *path, const struct stat *, int, struct FTW *) noexcept {
    ::remove(path);
    return 0;
}

int remove_below(const char *path, const struct stat *, int, struct FTW *at) noexcept {
    if (at->level > 0) ::remove(path);
    return 0;
}

constexpr const char *work_folder = "/tmp/fuzz_cwd";

void reset_state() {
    ::nftw(work_folder, remove_below, 16, FTW_DEPTH | FTW_PHYS);  // the folder stays: it is the cwd
    for (const char *f : {"/tmp/fslist", "/tmp/usr_file_list", "/tmp/smb.out", "/tmp/fslist.lock"}) ::unlink(f);
    ::nftw("/opt/vtrhttpd/localhost.drives/NETWORK_SHARE", remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    // Anything a previous input made at the top of the drives root.
    ::nftw(fuzz::drives, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    fuzz::reset_scratch_drive();
    ::mkdir("/opt/vtrhttpd/localhost.drives/NETWORK_SHARE", 0755);
    ::mkdir("/opt/vtrhttpd/localhost.drives/NETWORK_SHARE/Public", 0755);
    fuzz::write_file("/opt/vtrhttpd/localhost.drives/NETWORK_SHARE/Public/song.mp3", "ID3", 3);
}

void run_request(std::vector<std::string> &words) {
    if (words.empty()) return;
    std::string name = words[0];
    if (name.size() == 1 && static_cast<unsigned char>(name[0]) < known.size())
        name = known[static_cast<unsigned char>(name[0])];
    if (excluded(name)) return;
    std::vector<std::string> argv_text;
    argv_text.push_back(name);
    for (std::size_t i = 1; i < words.size(); ++i) argv_text.push_back(confine(words[i]));

    std::vector<unsigned char> block(sizeof(CommandArgs) + sizeof(char *) * (argv_text.size() + 1));
    auto *args = reinterpret_cast<CommandArgs *>(block.data());
    args->argc = static_cast<int32_t>(argv_text.size());
    for (std::size_t i = 0; i < argv_text.size(); ++i) args->argv[i] = argv_text[i].data();
    args->argv[argv_text.size()] = nullptr;
    CommandRequest request{};
    request.args = args;
    fuzz::response answer;
    (void)VANTOR_COMMAND_SERVER_func_run_command_file_operation(&request, nullptr, nullptr, answer.node());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::require_sandbox();
    ::mkdir("/opt/vtrhttpd/default", 0755);
    const char conf[] = "netfs_name0=Public\nnetfs_url0=smb://nas/public\n";
    fuzz::write_file("/opt/vtrhttpd/default/vtr.conf", conf, sizeof conf - 1);
    ::mkdir(work_folder, 0755);
    if (::chdir(work_folder) != 0) std::_Exit(2);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 16384) return -1;
    reset_state();
    std::vector<std::string> words;
    int requests = 0;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= size && requests < 4; ++i) {
        if (i < size && data[i] != 0) continue;
        std::string word(reinterpret_cast<const char *>(data) + start, i - start);
        start = i + 1;
        if (word == "\x01") {
            run_request(words);
            words.clear();
            ++requests;
            continue;
        }
        if (words.size() < 24) words.push_back(std::move(word));
    }
    if (requests < 4) run_request(words);
    return 0;
}
