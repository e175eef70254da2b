// Storage creation and the password check on a real drive folder; these
// cases need the fixed drives root, so they run inside tests/sandbox.sh.
#include <ctime>
#include <set>

#include "appstore/app_storage.h"
#include "appstore/scramble.h"
#include "test_util.h"

namespace {

namespace fs = std::filesystem;

const fs::path drive_root = "/opt/vtrhttpd/localhost.drives/UT_APPSTORE";

struct answer {
    int32_t result;
    std::string id;  // text of "id", "" when absent
};

answer run(std::vector<std::string> words) {
    tu::answer a = tu::run(std::move(words));
    return {a.result, a.text("id")};
}

class AppStorage : public ::testing::Test {
protected:
    void SetUp() override {
        REQUIRE_SANDBOX();
        fs::remove_all(drive_root);
        fs::create_directories(drive_root);
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(drive_root, ignored);
    }
};

TEST_F(AppStorage, CreationsInOneSecondDrawTheSameFirstIdAndTheSecondRedraws) {
    for (int attempt = 0; attempt < 5; ++attempt) {
        fs::remove_all(drive_root / ".vtr_apps");
        std::time_t before = std::time(nullptr);
        answer first = run({"create_app_storage", "UT_APPSTORE", "one"});
        answer second = run({"create_app_storage", "UT_APPSTORE", "two"});
        if (std::time(nullptr) != before) continue;  // crossed a second: try again
        appstore::app_random generator(before);
        int32_t expected_first = appstore::next_random(generator);
        int32_t expected_second = appstore::next_random(generator);
        ASSERT_EQ(first.result, 0);
        ASSERT_EQ(second.result, 0);
        EXPECT_EQ(first.id, std::to_string(expected_first));
        EXPECT_EQ(second.id, std::to_string(expected_second));
        return;
    }
    FAIL() << "no two creations within one second";
}

TEST_F(AppStorage, ConcurrentCreationsGetStoragesOfTheirOwn) {
    constexpr int count = 8;
    std::vector<answer> answers(count);
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([i, &answers] {
            answers[i] = run({"create_app_storage", "UT_APPSTORE", "pw" + std::to_string(i)});
        });
    for (std::thread &t : threads) t.join();
    std::set<std::string> ids;
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(answers[i].result, 0);
        ids.insert(answers[i].id);
        plugin::path_buffer identity;
        EXPECT_EQ(appstore::verify_app_access("UT_APPSTORE", answers[i].id.c_str(), ("pw" + std::to_string(i)).c_str(),
                                              identity),
                  0);
    }
    EXPECT_EQ(ids.size(), static_cast<std::size_t>(count));
    auto mode = fs::status(drive_root / ".vtr_apps").permissions();
    EXPECT_EQ(mode & fs::perms::group_all, fs::perms::none);
    EXPECT_EQ(mode & fs::perms::others_all, fs::perms::none);
}

TEST_F(AppStorage, PathsBeyondTheBuffersAnswer1) {
    // A drive folder whose path nearly fills a path buffer: the storage
    // folder's name no longer fits.
    fs::path deep = drive_root;
    while (deep.string().size() < 4060) deep /= std::string(std::min<std::size_t>(200, 4060 - deep.string().size()), 'd');
    fs::create_directories(deep);
    std::string relative = deep.string().substr(std::string("/opt/vtrhttpd/localhost.drives/").size());
    EXPECT_EQ(run({"create_app_storage", relative, "pw"}).result, 1);
    EXPECT_EQ(run({"delete_app_storage", relative, "1234567890", "pw"}).result, 1);
    EXPECT_EQ(run({"delete_app_storage", relative, "5", "pw"}).result, 401);  // still fits
    EXPECT_EQ(run({"delete_all_app_storage", relative}).result, 0);           // ".vtr_apps" fits
    EXPECT_FALSE(fs::exists(deep / ".vtr_apps"));
    EXPECT_EQ(run({"create_app_storage", std::string(5000, 'x'), "pw"}).result, 1);

    answer made = run({"create_app_storage", "UT_APPSTORE", "pw"});
    ASSERT_EQ(made.result, 0);
    EXPECT_EQ(run({"create_app_storage_file", std::string(4080, 'n'), "UT_APPSTORE", made.id, "pw"}).result, 1);
    EXPECT_EQ(run({"create_app_storage_file", "ok.txt", "UT_APPSTORE", made.id, "pw"}).result, 0);
}

}  // namespace
