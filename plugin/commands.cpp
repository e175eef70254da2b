#include "plugin/commands.h"

#include <array>
#include <cstring>

#include "listing/list_command.h"
#include "plugin/result.h"
#include "transfer/batch.h"
#include "transfer/selection.h"

namespace plugin {
namespace {

// Rows are compared in this order; each issue that builds a handler adds its
// row here together with the handler.
constexpr std::array user_commands{
    command{"list_user_storage_file", at_least(8), listing::list_user_storage_file},
    command{"select_user_storage_file_to_list", exactly(3), transfer::select_user_storage_file_to_list},
    command{"delete_user_storage_file_from_list", between(1, 2), transfer::delete_user_storage_file_from_list},
    command{"copy_user_storage_file_from_list", exactly(2),
            [](VantorXmlNode *slot, CommandRequest *request) -> int32_t {
                return transfer::copy_user_storage_file_from_list(slot, request, 0);
            }},
    command{"move_user_storage_file_from_list", exactly(2),
            [](VantorXmlNode *slot, CommandRequest *request) -> int32_t {
                return transfer::copy_user_storage_file_from_list(slot, request, 1);
            }},
};

constexpr std::array<command, 0> app_commands{};

constexpr command_tables tables{user_commands, app_commands, nullptr};

int32_t run_row(std::span<const command> rows, const char *name, VantorXmlNode *response_slot,
                CommandRequest *request, int32_t argc) {
    for (const command &row : rows) {
        if (row.name != name) continue;
        if (!row.rule.accepts(argc)) return +rc::failure;
        return row.run(response_slot, request);
    }
    return +rc::failure;
}

}  // namespace

const command_tables &file_operation_commands() noexcept { return tables; }

int32_t dispatch(const command_tables &t, VantorXmlNode *response_slot,
                 CommandRequest *request) noexcept {
    if (request == nullptr || request->args == nullptr) return +rc::failure;
    CommandArgs *args = request->args;
    if (args->argc < 1 || args->argv[0] == nullptr) return +rc::failure;
    const char *name = args->argv[0];
    if (std::strstr(name, "_user_") != nullptr)
        return run_row(t.user, name, response_slot, request, args->argc);
    if (std::strstr(name, "_app_") != nullptr)
        return run_row(t.app, name, response_slot, request, args->argc);
    if (std::strstr(name, "ripping") != nullptr && t.ripping != nullptr)
        return t.ripping(response_slot, request);
    return +rc::failure;
}

}  // namespace plugin
