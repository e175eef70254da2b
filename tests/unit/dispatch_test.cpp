// Name matching and count rules over a table of marked handlers; the plug-in's own table in the player's order.
#include "test_util.h"

namespace {

template <int N>
base::rc recorder(VantorXmlNode *, CommandRequest *) { return base::from_host(1000 + N); }

constexpr plugin::command user_rows[] = {
    {"list_user_storage_file", plugin::at_least(8), recorder<1>},
    {"delete_user_storage_file_from_list", plugin::between(1, 2), recorder<2>},
    {"x_user_y_app_z", plugin::exactly(1), recorder<4>},
};
constexpr plugin::command app_rows[] = {
    {"delete_app_storage", plugin::exactly(4), recorder<10>},
    {"start_app_ripping", plugin::exactly(1), recorder<12>},
};
constexpr plugin::command_tables test_tables{user_rows, app_rows, recorder<20>};

int32_t run(const char *name, int argc = 1) {
    std::vector<std::string> w(static_cast<std::size_t>(argc), "arg");
    w[0] = name;
    tu::request r(w);
    VantorXmlNode response = nullptr;
    return plugin::dispatch(test_tables, &response, &r.value);
}

TEST(Dispatch, CountRulesGroupsAndNames) {
    struct row { const char *name; int argc; int32_t expected; };
    const row rows[] = {
        {"list_user_storage_file", 7, 1}, {"list_user_storage_file", 8, 1001}, {"list_user_storage_file", 12, 1001},
        {"delete_user_storage_file_from_list", 1, 1002}, {"delete_user_storage_file_from_list", 2, 1002},
        {"delete_user_storage_file_from_list", 3, 1}, {"delete_app_storage", 4, 1010}, {"delete_app_storage", 3, 1},
        {"delete_app_storage", 5, 1}, {"x_user_y_app_z", 1, 1004},  // "_user_" wins over "_app_"
        {"nope_user_delete_app_storage", 4, 1},  // an unknown "_user_" name is not tried elsewhere
        {"start_app_ripping", 1, 1012}, {"other_app_ripping", 1, 1},  // "_app_" before "ripping"
        {"ripping", 1, 1020}, {"xrippingx", 9, 1020},  // any count
        {"list_user_storage_file ", 8, 1}, {"List_user_storage_file", 8, 1}, {"unknown", 1, 1},
    };
    for (const row &r : rows) EXPECT_EQ(run(r.name, r.argc), r.expected) << r.name << " argc " << r.argc;
    VantorXmlNode response = nullptr;
    CommandRequest empty{};
    tu::request zero({"list_user_storage_file"});
    zero.value.args->argc = 0;
    for (CommandRequest *r : {static_cast<CommandRequest *>(nullptr), &empty, &zero.value})
        EXPECT_EQ(plugin::dispatch(test_tables, &response, r), 1);
}

TEST(Dispatch, PluginTableOrderAndRules) {
    // name:low:high in the player's order (high 0: no upper bound).
    const std::string user =
        "list_user_storage_file:8:0 search_user_storage_file:10:10 create_user_storage_file:2:2 write_user_storage_file:5:5 "
        "read_user_storage_file:4:4 get_user_storage_file_info:2:2 copy_user_storage_file:3:3 move_user_storage_file:3:3 "
        "backup_user_storage_file:3:0 delete_user_storage_file:2:2 create_user_storage_directory:2:2 "
        "rename_user_storage_file:3:3 select_user_storage_file_to_list:3:3 delete_user_storage_file_from_list:1:2 "
        "copy_user_storage_file_from_list:2:2 move_user_storage_file_from_list:2:2 search_user_storage_subtitle:2:2 "
        "calculate_user_storage_file_hash:2:2 verify_user_storage_download_status:2:2 download_user_storage_file:4:0 "
        "get_user_storage_file_index:6:6 ";
    const std::string app =
        "create_app_storage:3:3 change_app_storage_password:6:6 create_app_storage_file:5:5 write_app_storage_file:8:8 "
        "read_app_storage_file:7:7 get_app_storage_file_info:5:5 copy_app_storage_file:6:6 delete_app_storage_file:5:5 "
        "delete_app_storage:4:4 delete_all_app_storage:2:2 ";
    auto rows = [](std::span<const plugin::command> t) {
        std::string out;
        for (const plugin::command &c : t) {
            out += std::string(c.name) + ":" + std::to_string(c.rule.low) + ":" + std::to_string(c.rule.high) + " ";
            EXPECT_NE(c.run, nullptr) << c.name;
        }
        return out;
    };
    const plugin::command_tables &t = plugin::file_operation_commands();
    EXPECT_EQ(rows(t.user), user);
    EXPECT_EQ(rows(t.app), app);
    EXPECT_NE(t.ripping, nullptr);
}

}  // namespace
