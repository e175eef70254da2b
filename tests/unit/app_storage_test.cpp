// Storage creation on a real drive folder: concurrent creations and paths beyond the buffers.
#include <set>

#include "appstore/app_storage.h"
#include "test_util.h"

namespace {

std::pair<int32_t, std::string> create(const std::string &drive, const std::string &password) {
    tu::answer a = tu::run({"create_app_storage", drive, password});
    return {a.result, a.text("id")};
}

TEST(AppStorage, ConcurrentCreationsAndBufferLimits) {
    REQUIRE_SANDBOX();
    tu::drive_tree drive("UT_APPSTORE");
    std::vector<std::pair<int32_t, std::string>> made(8);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back([i, &made] { made[i] = create("UT_APPSTORE", "pw" + std::to_string(i)); });
    for (std::thread &t : threads) t.join();
    std::set<std::string> ids;
    for (int i = 0; i < 8; ++i) {
        ids.insert(made[i].second);
        base::path_buffer identity;
        EXPECT_EQ(appstore::verify_app_access("UT_APPSTORE", made[i].second.c_str(), ("pw" + std::to_string(i)).c_str(),
                                              identity), 0) << made[i].first;
    }
    EXPECT_EQ(ids.size(), 8u);
    EXPECT_EQ(tu::fs::status(drive.at(".vtr_apps")).permissions() & tu::fs::perms::mask, tu::fs::perms::owner_all);
    // A drive folder whose path nearly fills a path buffer: the storage folder's name no longer fits.
    std::string deep = drive.root;
    while (deep.size() < 4060) deep += "/" + std::string(std::min<std::size_t>(199, 4059 - deep.size()), 'd');
    tu::fs::create_directories(deep);
    std::string relative = deep.substr(tu::drives_root.size() + 1);
    for (auto [words, result] : {std::pair<std::vector<std::string>, int32_t>{{"create_app_storage", relative, "pw"}, 1},
                                 {{"delete_app_storage", relative, "1234567890", "pw"}, 1},
                                 {{"delete_app_storage", relative, "5", "pw"}, 401},  // still fits
                                 {{"delete_all_app_storage", relative}, 0},  // ".vtr_apps" fits
                                 {{"create_app_storage", std::string(5000, 'x'), "pw"}, 1},
                                 {{"create_app_storage_file", std::string(4080, 'n'), "UT_APPSTORE", made[0].second, "pw0"}, 1},
                                 {{"create_app_storage_file", "ok.txt", "UT_APPSTORE", made[0].second, "pw0"}, 0}})
        EXPECT_EQ(tu::run(words).result, result) << words[0] << " " << words[1].size();
}

}  // namespace
