// The run entry with arbitrary words (NUL separated; a word 0x01 ends a request, up to four per input). A one-byte
// first word names a row of the tables. ".." becomes "._", absolute paths go below the drives root, relative ones to a
// scratch folder. Batches, downloads and ripping are not run.
#include <ftw.h>

#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_common.h"
#include "plugin/commands.h"

extern "C" int32_t VANTOR_COMMAND_SERVER_func_run_command_file_operation(CommandRequest *, void *, void *,
                                                                       VantorXmlNode);

namespace {

constexpr std::string_view root = "/opt/vtrhttpd/localhost.drives";
constexpr const char *work_folder = "/tmp/fuzz_cwd";

bool excluded(std::string_view name) {
    return name.ends_with("_from_list") || name == "download_user_storage_file" ||
           (name.find("ripping") != std::string_view::npos && name.find("_user_") == std::string_view::npos &&
            name.find("_app_") == std::string_view::npos);
}

std::string confine(std::string word) {
    for (std::size_t at = word.find(".."); at != std::string::npos; at = word.find("..", at)) word[at + 1] = '_';
    bool under_root = word.compare(0, root.size(), root) == 0;
    if (under_root && word.size() > root.size() && word[root.size()] != '/') word.insert(root.size(), "/");
    if (!under_root && !word.empty() && word[0] == '/') word.insert(0, root);
    return word;
}

int remove_below(const char *path, const struct stat *, int, struct FTW *at) noexcept {
    if (at->level > 0) ::remove(path);  // the folder itself stays
    return 0;
}

// Empties the drives root and makes a scratch drive: folders, files of several types, a disc folder, an empty file.
void reset_drives() noexcept {
    ::nftw(root.data(), remove_below, 16, FTW_DEPTH | FTW_PHYS);
    const std::string d = std::string(root) + "/FUZZ_DRIVE-1";
    for (const char *folder : {"", "/Music", "/Photos", "/Movies", "/Movies/DVD", "/Movies/DVD/VIDEO_TS", "/Empty", "/Sub"})
        ::mkdir((d + folder).c_str(), 0755);
    for (const char *file : {"/Music/01 - a.mp3", "/Music/10 - b.flac", "/Photos/p.png", "/Photos/p.jpg", "/Movies/clip 9.avi",
                             "/Movies/clip 10.mkv", "/Movies/DVD/VIDEO_TS/VIDEO_TS.IFO", "/Sub/notes.txt", "/Movies/clip 10.srt"})
        fuzz::write_file((d + file).c_str(), file, std::strlen(file));
    fuzz::write_file((d + "/Sub/empty.bin").c_str(), "", 0);
}

void run_request(std::vector<std::string> &words) {
    if (words.empty()) return;
    const plugin::command_tables &t = plugin::file_operation_commands();
    std::size_t pick = words[0].size() == 1 ? static_cast<unsigned char>(words[0][0]) : 1000;
    if (pick < t.user.size()) words[0] = t.user[pick].name;
    else if (pick < t.user.size() + t.app.size()) words[0] = t.app[pick - t.user.size()].name;
    if (excluded(words[0])) return;
    std::vector<char *> block(words.size() + 2);  // the 32-bit count, then the pointers
    auto *args = reinterpret_cast<CommandArgs *>(block.data());
    args->argc = static_cast<int32_t>(words.size());
    for (std::size_t i = 0; i < words.size(); ++i) args->argv[i] = (words[i] = i > 0 ? confine(words[i]) : words[i]).data();
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
    ::nftw(work_folder, remove_below, 16, FTW_DEPTH | FTW_PHYS);
    for (const char *f : {"/tmp/fslist", "/tmp/usr_file_list", "/tmp/smb.out", "/tmp/fslist.lock"}) ::unlink(f);
    reset_drives();
    for (const char *d : {"/opt/vtrhttpd/localhost.drives/NETWORK_SHARE", "/opt/vtrhttpd/localhost.drives/NETWORK_SHARE/Public"})
        ::mkdir(d, 0755);
    fuzz::write_file("/opt/vtrhttpd/localhost.drives/NETWORK_SHARE/Public/song.mp3", "ID3", 3);
    std::vector<std::string> words;
    int requests = 0;
    for (std::size_t i = 0, start = 0; i <= size && requests < 4; ++i) {
        if (i < size && data[i] != 0) continue;
        std::string word(reinterpret_cast<const char *>(data) + start, i - start);
        start = i + 1;
        if (word == "\x01") run_request(words), words.clear(), ++requests;
        else if (words.size() < 24) words.push_back(std::move(word));
    }
    if (requests < 4) run_request(words);
    return 0;
}
