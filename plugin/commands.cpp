#include "plugin/commands.h"

#include <array>
#include <cstring>

#include "listing/file_index.h"
#include "listing/list_command.h"
#include "listing/search.h"
#include "plugin/result.h"

namespace plugin {
namespace {

// Rows are compared in this order; each issue that builds a handler adds its
// row here together with the handler.
constexpr std::array user_commands{
    command{"list_user_storage_file", at_least(8), listing::list_user_storage_file},
    command{"search_user_storage_file", exactly(10), listing::search_user_storage_file},
    command{"get_user_storage_file_index", exactly(6), listing::get_user_storage_file_index},
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
