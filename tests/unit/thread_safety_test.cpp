// Eight threads call the run entry at once with listings, searches, file
// indexes, information, reads, writes, hashes and subtitle searches over one
// drive tree: every answer must equal the answer of the same request run
// alone. Built with FILEOP_TSAN=ON (scripts/tsan.sh) this is the data-race
// check; FILEOP_THREAD_SECONDS sets how long the threads run (default 2).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "host/sim/xml_tree.h"
#include "platform/host_api.h"

extern "C" int32_t VANTOR_COMMAND_SERVER_func_run_command_file_operation(CommandRequest *, void *, void *,
                                                                       VantorXmlNode);

namespace {

namespace fs = std::filesystem;
const fs::path drive = "/opt/vtrhttpd/localhost.drives/UT_THREADS-1";
const std::string full = drive.string();

struct outcome {
    int32_t result;
    std::string answer;
    bool operator==(const outcome &) const = default;
};

outcome run(const std::vector<std::string> &words) {
    std::vector<std::string> copy = words;  // handlers may not change them, but they get their own
    std::vector<unsigned char> block(sizeof(CommandArgs) + sizeof(char *) * (copy.size() + 1));
    auto *args = reinterpret_cast<CommandArgs *>(block.data());
    args->argc = static_cast<int32_t>(copy.size());
    for (std::size_t i = 0; i < copy.size(); ++i) args->argv[i] = copy[i].data();
    CommandRequest request{};
    request.args = args;
    vtrsim::xml_node *root = vtrsim::new_root();
    int32_t r = VANTOR_COMMAND_SERVER_func_run_command_file_operation(&request, nullptr, nullptr, root);
    outcome o{r, vtrsim::to_json(root)};
    vtrsim::free_tree(root);
    return o;
}

void make_file(const fs::path &p, const std::string &text) {
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << text;
}

int thread_seconds() {
    const char *s = std::getenv("FILEOP_THREAD_SECONDS");
    int n = s != nullptr ? std::atoi(s) : 2;
    return n > 0 ? n : 2;
}

class ThreadSafety : public ::testing::Test {
protected:
    void SetUp() override {
        const char *inside = std::getenv("VTR_SANDBOX");
        if (inside == nullptr || std::string(inside) != "1") GTEST_SKIP() << "needs tests/sandbox.sh";
        fs::remove_all(drive);
        fs::remove("/tmp/usr_file_list");
        make_file(drive / "Media/clip 9.avi", std::string(3000, 'v'));
        make_file(drive / "Media/clip 10.mkv", std::string(70000, 'k'));
        make_file(drive / "Media/clip 10.srt", "1\n00:00:01,000 --> 00:00:02,000\nhello\n");
        make_file(drive / "Media/song.mp3", "ID3 song");
        make_file(drive / "Media/Sub/deep clip.avi", "deep");
        make_file(drive / "Media/Sub/notes.txt", "notes");
        make_file(drive / "Media/DVD/VIDEO_TS/VIDEO_TS.IFO", "DVDVIDEO-VMG");
        for (int t = 0; t < 8; ++t) make_file(drive / "Write" / (std::to_string(t) + ".txt"), "");
        // Access times ahead of the change times: reading a file or a folder
        // then leaves them alone (relatime), so listings stay the same.
        timespec times[2] = {{std::time(nullptr) + 3600, 0}, {std::time(nullptr) - 3600, 0}};
        for (const auto &e : fs::recursive_directory_iterator(drive))
            ::utimensat(AT_FDCWD, e.path().c_str(), times, AT_SYMLINK_NOFOLLOW);
        ::utimensat(AT_FDCWD, drive.c_str(), times, 0);
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(drive, ignored);
        fs::remove("/tmp/usr_file_list", ignored);
    }
};

TEST_F(ThreadSafety, ConcurrentAnswersEqualAnswersAlone) {
    const std::string media = "UT_THREADS-1/Media";
    std::vector<std::vector<std::string>> requests = {
        {"list_user_storage_file", media, "0", "0", "true", "true", "true", ""},
        {"list_user_storage_file", media, "0", "0", "true", "true", "true", "video", "size_dsc", "false"},
        {"list_user_storage_file", media, "1", "2", "true", "true", "true", "", "name_dsc", "true"},
        {"list_user_storage_file", media + "/Sub", "0", "0", "false", "true", "true", "", "date_asc", "true"},
        // (not the top level: its drive entries report the live disk usage)
        {"list_user_storage_file", "UT_THREADS-1", "0", "0", "true", "true", "true", "", "name_asc", "false"},
        {"search_user_storage_file", media, "0", "0", "true", "true", "true", "", "clip", "true"},
        {"search_user_storage_file", media, "0", "2", "true", "true", "false", "video", "", "false"},
        {"get_user_storage_file_index", full + "/Media/clip 10.mkv", "", "name_asc", "true", "true"},
        {"get_user_storage_file_index", full + "/Media/song.mp3", "music", "size_dsc", "false", "true"},
        {"get_user_storage_file_info", media + "/song.mp3"},
        {"get_user_storage_file_info", media + "/Sub"},
        {"read_user_storage_file", media + "/clip 10.srt", "3", "10"},
        {"read_user_storage_file", media + "/clip 10.mkv", "0", "0"},
        {"calculate_user_storage_file_hash", full + "/Media/clip 10.mkv"},  // the path as given
        {"calculate_user_storage_file_hash", full + "/Media/song.mp3"},
        {"search_user_storage_subtitle", media + "/clip 10.mkv"},
        {"search_user_storage_subtitle", media + "/clip 9.avi"},
    };
    // Each thread also overwrites a file of its own with the same text.
    for (int t = 0; t < 8; ++t)
        requests.push_back({"write_user_storage_file", "UT_THREADS-1/Write/" + std::to_string(t) + ".txt", "false",
                            "same text every time", "0"});

    // The first round fills the listing cache; from the second on, the
    // cached pages answer as the cache does.
    for (const auto &r : requests) (void)run(r);
    std::vector<outcome> alone;
    for (const auto &r : requests) alone.push_back(run(r));
    // Every request does real work (a refusal would test nothing).
    for (std::size_t i = 0; i < requests.size(); ++i)
        EXPECT_EQ(alone[i].result, 0) << requests[i][0] << " " << requests[i][1] << ": " << alone[i].answer;

    std::atomic<bool> stop{false};
    std::atomic<long> total{0};
    std::vector<std::string> failures[8];
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            std::size_t k = static_cast<std::size_t>(t) * 3;
            while (!stop.load(std::memory_order_relaxed)) {
                k = (k + 1) % requests.size();
                outcome o = run(requests[k]);
                total.fetch_add(1, std::memory_order_relaxed);
                if (!(o == alone[k]) && failures[t].size() < 5)
                    failures[t].push_back(requests[k][0] + " " + requests[k][1] + ": " +
                                          std::to_string(o.result) + " " + o.answer + "\n  alone: " +
                                          std::to_string(alone[k].result) + " " + alone[k].answer);
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::seconds(thread_seconds()));
    stop = true;
    for (auto &th : threads) th.join();
    for (const auto &f : failures)
        for (const auto &line : f) ADD_FAILURE() << line;
    EXPECT_GT(total.load(), 8);
    std::printf("%ld requests from 8 threads in %d s\n", total.load(), thread_seconds());
    EXPECT_EQ(vtrsim::orphan_nodes(), 0u);
}

}  // namespace
