// Eight threads run many commands at once over one tree: each answer must equal the same request's answer alone. With
// FILEOP_TSAN=ON (scripts/tsan.sh) the data-race check; FILEOP_THREAD_SECONDS: how long (default 2).
#include <ctime>

#include "test_util.h"

namespace {

struct outcome {
    int32_t result;
    std::string answer;
    bool operator==(const outcome &) const = default;
};

outcome run(const std::vector<std::string> &words) {
    tu::request r(words);
    vtrsim::xml_node *root = vtrsim::new_root();
    int32_t result = VANTOR_COMMAND_SERVER_func_run_command_file_operation(&r.value, nullptr, nullptr, root);
    outcome o{result, vtrsim::to_json(root)};
    vtrsim::free_tree(root);
    return o;
}

TEST(ThreadSafety, ConcurrentAnswersEqualAnswersAlone) {
    REQUIRE_SANDBOX();
    tu::drive_tree d("UT_THREADS-1");
    ::unlink("/tmp/usr_file_list");
    for (int t = 0; t < 8; ++t) d.file("Write/" + std::to_string(t), "");
    for (auto [name, text] : {std::pair<const char *, std::string>{"clip 9.avi", std::string(3000, 'v')},
                              {"clip 10.mkv", std::string(70000, 'k')}, {"clip 10.srt", "1\n00:00:01,000 --> 00:00:02,000\nhi\n"},
                              {"song.mp3", "ID3 song"}, {"Sub/deep clip.avi", "deep"}, {"DVD/VIDEO_TS/VIDEO_TS.IFO", "DVD"}})
        d.file(std::string("Media/") + name, text);
    // Access times ahead of the change times: reading leaves them alone (relatime), so listings stay the same.
    timespec times[2] = {{std::time(nullptr) + 3600, 0}, {std::time(nullptr) - 3600, 0}};
    for (const auto &e : tu::fs::recursive_directory_iterator(d.root))
        ::utimensat(AT_FDCWD, e.path().c_str(), times, AT_SYMLINK_NOFOLLOW);
    ::utimensat(AT_FDCWD, d.root.c_str(), times, 0);

    const std::string media = "UT_THREADS-1/Media", full = d.root + "/Media";
    std::vector<std::vector<std::string>> requests = {
        {"list_user_storage_file", media, "0", "0", "true", "true", "true", "video", "size_dsc", "false"},
        {"list_user_storage_file", media, "1", "2", "true", "true", "true", "", "name_dsc", "true"},
        {"list_user_storage_file", "UT_THREADS-1", "0", "0", "true", "true", "true", "", "name_asc", "false"},
        {"search_user_storage_file", media, "0", "0", "true", "true", "true", "", "clip", "true"},
        {"get_user_storage_file_index", full + "/song.mp3", "music", "size_dsc", "false", "true"},
        {"get_user_storage_file_info", media + "/song.mp3"}, {"read_user_storage_file", media + "/clip 10.srt", "3", "10"},
        {"calculate_user_storage_file_hash", full + "/clip 10.mkv"}, {"search_user_storage_subtitle", media + "/clip 10.mkv"},
    };
    for (int t = 0; t < 8; ++t)  // each thread also overwrites a file of its own with the same text
        requests.push_back({"write_user_storage_file", "UT_THREADS-1/Write/" + std::to_string(t), "false", "same text", "0"});
    // The first round fills the listing cache; from the second on the cached pages answer.
    std::vector<outcome> alone;
    for (const auto &r : requests) (void)run(r), alone.push_back(run(r));
    for (std::size_t i = 0; i < requests.size(); ++i)  // a refusal would test nothing
        EXPECT_EQ(alone[i].result, 0) << requests[i][0] << " " << requests[i][1] << ": " << alone[i].answer;

    const char *s = std::getenv("FILEOP_THREAD_SECONDS");
    const int seconds = s != nullptr && std::atoi(s) > 0 ? std::atoi(s) : 2;
    std::atomic<bool> stop{false};
    std::atomic<long> total{0};
    std::vector<std::string> failures[8];
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (std::size_t k = static_cast<std::size_t>(t) * 3; !stop.load(std::memory_order_relaxed);) {
                k = (k + 1) % requests.size();
                outcome o = run(requests[k]);
                total.fetch_add(1, std::memory_order_relaxed);
                if (!(o == alone[k]) && failures[t].size() < 5)
                    failures[t].push_back(requests[k][0] + " " + requests[k][1] + ": " + std::to_string(o.result) +
                                          " " + o.answer + "\n  alone: " + alone[k].answer);
            }
        });
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    stop = true;
    for (auto &th : threads) th.join();
    for (const auto &f : failures)
        for (const auto &line : f) ADD_FAILURE() << line;
    EXPECT_GT(total.load(), 8);
    EXPECT_EQ(vtrsim::orphan_nodes(), 0u);
    ::unlink("/tmp/usr_file_list");
}

}  // namespace
