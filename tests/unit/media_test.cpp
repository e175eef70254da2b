// The hash's 32-bit tail seek, its word sums on real files, the download's
// final-name rules and the ".gz" test.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "media/download.h"
#include "media/hash.h"

namespace {

struct temp_dir {
    std::string path;
    temp_dir() {
        std::string pattern = testing::TempDir() + "media_test_XXXXXX";
        path = ::mkdtemp(pattern.data()) ? pattern : std::string();
    }
    ~temp_dir() {
        std::string cmd = "rm -rf '" + path + "'";
        if (!path.empty()) {
            EXPECT_EQ(std::system(cmd.c_str()), 0);
        }
    }
};

void write_file(const std::string &path, const std::vector<unsigned char> &bytes) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ::close(fd);
}

// Whole little-endian words of bytes[from, from + 65536), clipped at the end.
uint64_t word_sum(const std::vector<unsigned char> &bytes, std::size_t from) {
    uint64_t sum = 0;
    std::size_t end = std::min(bytes.size(), from + 65536);
    for (std::size_t i = from; i + 8 <= end; i += 8) {
        uint64_t w = 0;
        for (int b = 7; b >= 0; --b) w = (w << 8) | bytes[i + b];
        sum += w;
    }
    return sum;
}

std::vector<unsigned char> pseudo_random(std::size_t n, uint32_t seed) {
    std::vector<unsigned char> v(n);
    for (auto &c : v) {
        seed = seed * 1103515245u + 12345u;
        c = static_cast<unsigned char>(seed >> 16);
    }
    return v;
}

TEST(HashTailOffset, ThirtyTwoBitSeekRule) {
    constexpr uint64_t GiB = 1ull << 30;
    struct row { uint64_t size; int64_t offset; };
    const row rows[] = {
        {0, -1},
        {65535, -1},                       // shorter than one block: the seek fails
        {65536, 0},
        {100000, 34464},                   // head and tail overlap
        {131072, 65536},
        {2 * GiB - 1, 2 * GiB - 1 - 65536},
        {2 * GiB, 2 * GiB - 65536},        // low 32 bits less 65536 still fit
        {2 * GiB + 65535, 2 * GiB - 1},
        {2 * GiB + 65536, -1},             // from here to 4 GiB + 64 KiB the seek fails
        {3 * GiB, -1},
        {4 * GiB - 1, -1},
        {4 * GiB, -1},
        {4 * GiB + 65535, -1},
        {4 * GiB + 65536, 0},              // wraps: from the low 32 bits
        {5 * GiB, GiB - 65536},
        {6 * GiB + 65536, -1},
    };
    for (const row &r : rows) EXPECT_EQ(media::hash_tail_offset(r.size), r.offset) << r.size;
}

TEST(ComputeHashForFile, SmallAndOverlappingFiles) {
    temp_dir dir;
    ASSERT_FALSE(dir.path.empty());
    struct row { std::size_t size; std::size_t tail_from; };  // tail_from == size: nothing added
    const row rows[] = {
        {0, 0}, {7, 7}, {8, 8}, {1001, 1001}, {65535, 65535},
        {65536, 0}, {65543, 7}, {100000, 34464}, {100003, 34467}, {131072, 65536}, {200005, 134469},
    };
    uint32_t seed = 1;
    for (const row &r : rows) {
        auto bytes = pseudo_random(r.size, seed++);
        std::string path = dir.path + "/f" + std::to_string(r.size);
        write_file(path, bytes);
        uint64_t expected = r.size + word_sum(bytes, 0) + word_sum(bytes, r.tail_from);
        EXPECT_EQ(compute_hash_for_file(path.c_str()), expected) << r.size;
    }
    // The worked example: 16 + 1 + 2.
    std::string sixteen = dir.path + "/sixteen";
    write_file(sixteen, {1, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(compute_hash_for_file(sixteen.c_str()), 19u);
    // Unopenable files hash to 0.
    EXPECT_EQ(compute_hash_for_file((dir.path + "/missing").c_str()), 0u);
    EXPECT_EQ(compute_hash_for_file(nullptr), 0u);
}

TEST(ComputeHashForFile, ThreeGibFileAddsTheSecondBlockNotTheLast) {
    temp_dir dir;
    std::string path = dir.path + "/sparse";
    const uint64_t size = 3ull << 30;
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(size)), 0);
    const uint64_t head = 3, second = 5 << 8, last = 7;  // little-endian words
    ASSERT_EQ(::pwrite(fd, &head, 8, 0), 8);
    ASSERT_EQ(::pwrite(fd, &second, 8, 65536 + 8), 8);
    ASSERT_EQ(::pwrite(fd, &last, 8, static_cast<off_t>(size - 16)), 8);
    ::close(fd);
    EXPECT_EQ(compute_hash_for_file(path.c_str()), size + head + second);
}

TEST(IsPathFolder, FollowsLinks) {
    temp_dir dir;
    std::string file = dir.path + "/file", link = dir.path + "/link";
    write_file(file, {1});
    ASSERT_EQ(::symlink(dir.path.c_str(), link.c_str()), 0);
    EXPECT_EQ(is_path_folder(dir.path.c_str()), 1);
    EXPECT_EQ(is_path_folder(link.c_str()), 1);
    EXPECT_EQ(is_path_folder(file.c_str()), 0);
    EXPECT_EQ(is_path_folder((dir.path + "/none").c_str()), 0);
    EXPECT_EQ(is_path_folder(nullptr), 0);
}

TEST(DownloadFinalName, Rules) {
    temp_dir dir;
    const std::string d = dir.path;
    ASSERT_EQ(::mkdir((d + "/Movie").c_str(), 0755), 0);
    struct row { std::string folder; const char *name; const char *extension; std::string expected; bool must_be_new; };
    const row rows[] = {
        {d, nullptr, nullptr, d + "/folder.jpg", false},
        {d, "poster.jpg", nullptr, d + "/poster.jpg", true},
        {d, "poster.jpg", "", d + "/poster.jpg", true},
        {d, "poster.jpg", "png", d + "/poster.png", false},
        {d, "a.b.c", "srt", d + "/a.b.srt", false},
        {d, "Movie", "srt", d + "/Movie.srt", false},       // an existing folder keeps its name
        {d, "noext", "srt", d + "/noext.srt", false},       // no "." to replace: appended
        {d, "trailing.", "srt", d + "/trailing.srt", false},
        {"/m/pvx_database/media/video", "Film.2020", "jpg", "/m/pvx_database/media/video/Film.2020.jpg", false},
        {"/m/pvx_database/media", "Film.2020", "jpg", "/m/pvx_database/media/Film.jpg", false},
        {"/d/100%%_%s", nullptr, nullptr, "/d/100%%_%s/folder.jpg", false},  // copied literally
    };
    for (const row &r : rows) {
        char out[4096];
        bool must_be_new = !r.must_be_new;
        ASSERT_TRUE(media::download_final_name(out, r.folder.c_str(), r.name, r.extension, &must_be_new))
            << r.name;
        EXPECT_EQ(std::string(out), r.expected);
        EXPECT_EQ(must_be_new, r.must_be_new) << r.expected;
    }
    char small[16];
    bool must_be_new = false;
    EXPECT_TRUE(media::download_final_name(small, "/abcdefghijkl", "x", nullptr, &must_be_new));
    EXPECT_FALSE(media::download_final_name(small, "/abcdefghijklm", "x", nullptr, &must_be_new));
    EXPECT_TRUE(media::download_final_name(small, "/abcdefghij", "x", "y", &must_be_new));
    EXPECT_STREQ(small, "/abcdefghij/x.y");
    EXPECT_FALSE(media::download_final_name(small, "/abcdefghijk", "x", "y", &must_be_new));
}

TEST(HasGzSuffix, LastDotStartsExactlyGz) {
    struct row { const char *name; bool gz; };
    const row rows[] = {
        {"a.gz", true}, {"a.GZ", true}, {"a.gZ", true}, {"x.tar.gz", true}, {"http://h/p/x.Gz", true},
        {"a.gzip", false}, {"a.gz.txt", false}, {"gz", false}, {"", false}, {"a.gz?t=1", false}, {"agz", false},
    };
    for (const row &r : rows) EXPECT_EQ(media::has_gz_suffix(r.name), r.gz) << r.name;
}

TEST(TestPermission, CreatesAndRemovesTheProbe) {
    temp_dir dir;
    EXPECT_EQ(file_operation_test_permission(dir.path.c_str()), 1);
    EXPECT_NE(::access((dir.path + "/.permission_test.pvx").c_str(), F_OK), 0);
    EXPECT_EQ(file_operation_test_permission((dir.path + "/none").c_str()), 0);
    EXPECT_EQ(file_operation_test_permission(nullptr), 0);
    EXPECT_EQ(file_operation_test_permission(std::string(4090, 'a').c_str()), 0);
}

}  // namespace
