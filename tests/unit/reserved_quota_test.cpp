// The reserved area's 20 MiB quota in the free-space check, on the real
// drives root: runs only inside tests/sandbox.sh.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "storage/paths.h"

namespace {

const std::string reserved = "/opt/vtrhttpd/localhost.drives/.reserved";
const std::string sibling = "/opt/vtrhttpd/localhost.drives/.reservedX";

long long du_bytes() {
    FILE *p = ::popen("du -sL /opt/vtrhttpd/localhost.drives/.reserved 2>/dev/null", "r");
    long long kib = 0;
    if (p == nullptr || std::fscanf(p, "%lld", &kib) != 1) kib = 0;
    if (p != nullptr) ::pclose(p);
    return kib * 1024;
}

void fill(const std::string &path, std::size_t bytes) {
    std::ofstream out(path, std::ios::binary);
    std::string block(1 << 16, 'r');
    for (std::size_t done = 0; done < bytes; done += block.size())
        out.write(block.data(), static_cast<std::streamsize>(std::min(block.size(), bytes - done)));
}

class ReservedQuota : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::getenv("VTR_SANDBOX") == nullptr) GTEST_SKIP() << "needs tests/sandbox.sh";
        (void)std::system("rm -rf /opt/vtrhttpd/localhost.drives/.reserved /opt/vtrhttpd/localhost.drives/.reservedX");
        ASSERT_EQ(::mkdir(reserved.c_str(), 0755), 0);
        ASSERT_EQ(::mkdir(sibling.c_str(), 0755), 0);
    }
    void TearDown() override {
        (void)std::system("rm -rf /opt/vtrhttpd/localhost.drives/.reserved /opt/vtrhttpd/localhost.drives/.reservedX");
    }
};

TEST_F(ReservedQuota, FitsExactlyUpToTheQuotaLeft) {
    fill(reserved + "/part", 19u << 20);
    long long left = storage::reserved_quota - du_bytes();
    ASSERT_GT(left, 0);
    ASSERT_LT(left, 2 << 20);
    const std::string inside = reserved + "/app/file";
    EXPECT_EQ(storage::check_free_space(static_cast<uint32_t>(left), inside.c_str()), 0);
    EXPECT_EQ(storage::check_free_space(static_cast<uint32_t>(left + 1), inside.c_str()), 1);
    EXPECT_EQ(storage::check_free_space(0, reserved.c_str()), 0);
    // A sibling whose name continues ".reserved" shares the quota.
    EXPECT_EQ(storage::check_free_space(static_cast<uint32_t>(left + 1), (sibling + "/f").c_str()), 1);
    // Elsewhere on the same file system the partition's free space counts.
    EXPECT_EQ(storage::check_free_space(static_cast<uint32_t>(left + 1),
                                        "/opt/vtrhttpd/localhost.drives"), 0);
}

TEST_F(ReservedQuota, FullAreaRefusesEvenOneByte) {
    fill(reserved + "/all", 20u << 20);
    ASSERT_GE(du_bytes(), storage::reserved_quota);
    EXPECT_EQ(storage::check_free_space(1, (reserved + "/x").c_str()), 1);
    EXPECT_EQ(storage::check_free_space(0, (reserved + "/x").c_str()), 0);
    EXPECT_EQ(storage::check_free_space(1, (sibling + "/x").c_str()), 1);
    EXPECT_EQ(storage::check_free_space(1, nullptr), 1);
}

}  // namespace
