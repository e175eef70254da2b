// The reserved area's 20 MiB quota in the free-space check, on the real
// drives root (inside tests/sandbox.sh only): exact up to the quota left.
#include "storage/paths.h"
#include "test_util.h"

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

TEST(ReservedQuota, FitsExactlyUpToTheQuotaLeft) {
    REQUIRE_SANDBOX();
    tu::drive_tree area(reserved), other(sibling);
    area.file("part", std::string(19u << 20, 'r'));
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
    area.file("all", std::string(2u << 20, 'r'));  // a full area refuses even one byte
    EXPECT_EQ(storage::check_free_space(1, (reserved + "/x").c_str()), 1);
    EXPECT_EQ(storage::check_free_space(0, (reserved + "/x").c_str()), 0);
    EXPECT_EQ(storage::check_free_space(1, nullptr), 1);
}

}  // namespace
