// The run entry's group and name matching and the argument-count rules,
// checked over a table of recording handlers.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "plugin/commands.h"

extern "C" CommandDescriptor *VANTOR_COMMAND_SERVER_func_create_command_file_operation_descriptor(
    CommandDescriptor *d);
extern "C" int32_t VANTOR_COMMAND_SERVER_func_run_command_file_operation(CommandRequest *, void *, void *,
                                                                       VantorXmlNode);

namespace {

thread_local std::string last_called;
thread_local VantorXmlNode seen_response;

template <int N>
int32_t recorder(VantorXmlNode *slot, CommandRequest *request) {
    last_called = request->args->argv[0];
    seen_response = *slot;
    return 1000 + N;
}

constexpr plugin::command user_rows[] = {
    {"list_user_storage_file", plugin::at_least(8), recorder<1>},
    {"delete_user_storage_file_from_list", plugin::between(1, 2), recorder<2>},
    {"backup_user_storage_file", plugin::at_least(3), recorder<3>},
    {"x_user_y_app_z", plugin::exactly(1), recorder<4>},
};
constexpr plugin::command app_rows[] = {
    {"delete_app_storage", plugin::exactly(4), recorder<10>},
    {"delete_all_app_storage", plugin::exactly(2), recorder<11>},
    {"start_app_ripping", plugin::exactly(1), recorder<12>},
};
constexpr plugin::command_tables test_tables{user_rows, app_rows, recorder<20>};

struct request_builder {
    std::vector<std::string> words;
    std::vector<std::byte> block;
    CommandRequest request{};

    explicit request_builder(std::vector<std::string> w) : words(std::move(w)) {
        block.resize(sizeof(CommandArgs) + sizeof(char *) * (words.size() + 1));
        auto *args = reinterpret_cast<CommandArgs *>(block.data());
        args->argc = static_cast<int32_t>(words.size());
        for (std::size_t i = 0; i < words.size(); ++i) args->argv[i] = words[i].data();
        request.args = args;
    }
};

int32_t run(std::vector<std::string> words) {
    last_called.clear();
    request_builder b(std::move(words));
    int marker = 0;
    VantorXmlNode response = &marker;
    int32_t r = plugin::dispatch(test_tables, &response, &b.request);
    if (!last_called.empty()) {
        EXPECT_EQ(seen_response, &marker);
    }
    return r;
}

std::vector<std::string> words(const char *name, int argc) {
    std::vector<std::string> w{name};
    while (static_cast<int>(w.size()) < argc) w.push_back("arg");
    return w;
}

TEST(Dispatch, CountRulesAtTheirBoundaries) {
    struct row { const char *name; int argc; int32_t expected; };
    const row rows[] = {
        {"list_user_storage_file", 7, 1},
        {"list_user_storage_file", 8, 1001},
        {"list_user_storage_file", 12, 1001},
        {"delete_user_storage_file_from_list", 1, 1002},
        {"delete_user_storage_file_from_list", 2, 1002},
        {"delete_user_storage_file_from_list", 3, 1},
        {"backup_user_storage_file", 2, 1},
        {"backup_user_storage_file", 5, 1003},
        {"delete_app_storage", 4, 1010},
        {"delete_app_storage", 3, 1},
        {"delete_all_app_storage", 2, 1011},
        {"delete_all_app_storage", 4, 1},
    };
    for (const row &r : rows) EXPECT_EQ(run(words(r.name, r.argc)), r.expected) << r.name << " argc " << r.argc;
}

TEST(Dispatch, GroupChosenBySubstringInOrder) {
    // "_user_" wins over "_app_"; an unknown "_user_" name is not tried elsewhere.
    EXPECT_EQ(run({"x_user_y_app_z"}), 1004);
    EXPECT_EQ(run({"nope_user_delete_app_storage"}), 1);
    EXPECT_EQ(last_called, "");
    // "_app_" before "ripping": an app name holding "ripping" only reaches its own row.
    EXPECT_EQ(run({"start_app_ripping"}), 1012);
    EXPECT_EQ(run({"other_app_ripping"}), 1);
    // Any other name holding "ripping" reaches the ripping handler, whatever the count.
    EXPECT_EQ(run({"ripping"}), 1020);
    EXPECT_EQ(run(words("xrippingx", 9)), 1020);
    // Exact names only.
    EXPECT_EQ(run(words("list_user_storage_file ", 8)), 1);
    EXPECT_EQ(run(words("List_user_storage_file", 8)), 1);
    EXPECT_EQ(run({"unknown"}), 1);
}

TEST(Dispatch, MalformedRequestsAnswerOne) {
    int marker = 0;
    VantorXmlNode response = &marker;
    EXPECT_EQ(plugin::dispatch(test_tables, &response, nullptr), 1);
    CommandRequest empty{};
    EXPECT_EQ(plugin::dispatch(test_tables, &response, &empty), 1);
    request_builder b({"list_user_storage_file"});
    b.request.args->argc = 0;
    EXPECT_EQ(plugin::dispatch(test_tables, &response, &b.request), 1);
}

TEST(Descriptor, FactoryWritesValuesAtTheirOffsets) {
    unsigned char raw[sizeof(CommandDescriptor)];
    std::memset(raw, 0xAB, sizeof raw);
    auto *d = reinterpret_cast<CommandDescriptor *>(raw);
    ASSERT_EQ(VANTOR_COMMAND_SERVER_func_create_command_file_operation_descriptor(d), d);
    auto word = [&](std::size_t offset) {
        int32_t v;
        std::memcpy(&v, raw + offset, 4);
        return v;
    };
    EXPECT_STREQ(reinterpret_cast<char *>(raw + 4), "file_operation");
    EXPECT_EQ(word(40), 200);
    EXPECT_EQ(word(52), 10);
    EXPECT_EQ(word(56), 10);
    EXPECT_EQ(word(60), 0);
    // Host-owned words are left alone.
    for (std::size_t offset : {0u, 36u, 44u, 48u}) EXPECT_EQ(static_cast<uint32_t>(word(offset)), 0xABABABABu);
    VantorRunEntry entry;
    std::memcpy(&entry, raw + 64, sizeof entry);
    EXPECT_EQ(entry, &VANTOR_COMMAND_SERVER_func_run_command_file_operation);
    EXPECT_EQ(VANTOR_COMMAND_SERVER_func_create_command_file_operation_descriptor(nullptr), nullptr);
}

}  // namespace

namespace {

// The plug-in's own table: every sub-command present, compared in the
// player's order, with its count rule.
TEST(Dispatch, PluginTableOrderAndRules) {
    struct row { const char *name; int32_t low; int32_t high; };
    const row user[] = {
        {"list_user_storage_file", 8, 0}, {"search_user_storage_file", 10, 10},
        {"create_user_storage_file", 2, 2}, {"write_user_storage_file", 5, 5},
        {"read_user_storage_file", 4, 4}, {"get_user_storage_file_info", 2, 2},
        {"copy_user_storage_file", 3, 3}, {"move_user_storage_file", 3, 3},
        {"backup_user_storage_file", 3, 0}, {"delete_user_storage_file", 2, 2},
        {"create_user_storage_directory", 2, 2}, {"rename_user_storage_file", 3, 3},
        {"select_user_storage_file_to_list", 3, 3}, {"delete_user_storage_file_from_list", 1, 2},
        {"copy_user_storage_file_from_list", 2, 2}, {"move_user_storage_file_from_list", 2, 2},
        {"search_user_storage_subtitle", 2, 2}, {"calculate_user_storage_file_hash", 2, 2},
        {"verify_user_storage_download_status", 2, 2}, {"download_user_storage_file", 4, 0},
        {"get_user_storage_file_index", 6, 6},
    };
    const row app[] = {
        {"create_app_storage", 3, 3}, {"change_app_storage_password", 6, 6},
        {"create_app_storage_file", 5, 5}, {"write_app_storage_file", 8, 8},
        {"read_app_storage_file", 7, 7}, {"get_app_storage_file_info", 5, 5},
        {"copy_app_storage_file", 6, 6}, {"delete_app_storage_file", 5, 5},
        {"delete_app_storage", 4, 4}, {"delete_all_app_storage", 2, 2},
    };
    const plugin::command_tables &t = plugin::file_operation_commands();
    auto check = [](std::span<const plugin::command> rows, std::span<const row> expected) {
        ASSERT_EQ(rows.size(), expected.size());
        for (std::size_t i = 0; i < rows.size(); ++i) {
            EXPECT_EQ(rows[i].name, expected[i].name) << i;
            EXPECT_EQ(rows[i].rule.low, expected[i].low) << expected[i].name;
            EXPECT_EQ(rows[i].rule.high, expected[i].high) << expected[i].name;
            EXPECT_NE(rows[i].run, nullptr) << expected[i].name;
        }
    };
    check(t.user, user);
    check(t.app, app);
    EXPECT_NE(t.ripping, nullptr);
}

}  // namespace
