// The hash's 32-bit tail seek, the download's final-name rules, its ".gz" test and the time limit of its child programs
// (a wget held by a server that never finishes). The hashes themselves are checked end to end.
#include <signal.h>
#include <sys/wait.h>

#include "base/spawn.h"
#include "media/download.h"
#include "media/hash.h"
#include "test_util.h"

namespace {

TEST(HashTailOffset, ThirtyTwoBitSeekRule) {
    constexpr uint64_t GiB = 1ull << 30;
    struct row { uint64_t size; int64_t offset; };
    const row rows[] = {
        {0, -1}, {65535, -1}, {65536, 0}, {100000, 34464},  // shorter than a block: the seek fails; overlaps
        {2 * GiB, 2 * GiB - 65536}, {2 * GiB + 65535, 2 * GiB - 1}, {2 * GiB + 65536, -1}, {3 * GiB, -1},
        {4 * GiB - 1, -1}, {4 * GiB + 65535, -1}, {4 * GiB + 65536, 0}, {5 * GiB, GiB - 65536},  // the low 32 bits
        {6 * GiB + 65536, -1},
    };
    for (const row &r : rows) EXPECT_EQ(media::hash_tail_offset(r.size), r.offset) << r.size;
}

TEST(DownloadFinalName, Rules) {
    // "/" is a folder, "/none" is not.
    struct row { const char *folder, *name, *extension, *expected; bool must_be_new; };
    const row rows[] = {
        {"/d", nullptr, nullptr, "/d/folder.jpg", false}, {"/d", "poster.jpg", nullptr, "/d/poster.jpg", true},
        {"/d", "poster.jpg", "", "/d/poster.jpg", true}, {"/none", "poster.jpg", "png", "/none/poster.png", false},
        {"/none", "a.b.c", "srt", "/none/a.b.srt", false},
        {"/none", "noext", "srt", "/none/noext.srt", false},  // nothing to replace: appended
        {"/none", "trailing.", "srt", "/none/trailing.srt", false},
        {"", "tmp", "srt", "/tmp.srt", false},                 // "/tmp" is a folder: name kept
        {"/m/pvx_database/media/video", "Film.2020", "jpg", "/m/pvx_database/media/video/Film.2020.jpg", false},
        {"/m/pvx_database/media", "Film.2020", "jpg", "/m/pvx_database/media/Film.jpg", false},
        {"/d/100%%_%s", nullptr, nullptr, "/d/100%%_%s/folder.jpg", false},  // copied literally
    };
    for (const row &r : rows) {
        char out[4096];
        bool must_be_new = !r.must_be_new;
        ASSERT_TRUE(media::download_final_name(out, r.folder, r.name, r.extension, &must_be_new));
        EXPECT_STREQ(out, r.expected);
        EXPECT_EQ(must_be_new, r.must_be_new) << r.expected;
    }
    char small[16];  // the last names that fit
    bool must_be_new = false;
    for (auto [folder, extension, fits] : {std::tuple{"/abcdefghijkl", (const char *)nullptr, true}, {"/abcdefghijklm", nullptr, false},
                                           {"/abcdefghij", "y", true}, {"/abcdefghijk", "y", false}})
        EXPECT_EQ(media::download_final_name(small, folder, "x", extension, &must_be_new), fits) << folder;
}

TEST(HasGzSuffix, LastDotStartsExactlyGz) {
    for (const char *yes : {"a.gz", "a.GZ", "a.gZ", "x.tar.gz", "http://h/p/x.Gz"})
        EXPECT_TRUE(media::has_gz_suffix(yes)) << yes;
    for (const char *no : {"a.gzip", "a.gz.txt", "gz", "", "a.gz?t=1", "agz"})
        EXPECT_FALSE(media::has_gz_suffix(no)) << no;
}

TEST(ChildTimeLimit, KillsAtTheLimitAndLetsQuickChildrenFinish) {
    base::spawn_options limited;
    limited.time_limit_seconds = 1;
    const char *sleeper[] = {"sleep", "30", nullptr};
    const auto start = std::chrono::steady_clock::now();
    const int status = base::run_program(sleeper, limited);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    const char *quick[] = {"sh", "-c", "exit 3", nullptr};
    EXPECT_EQ(base::exit_code_of(base::run_program(quick, limited)), 3);
}

}  // namespace
