#include "plugin/commands.h"

#include <array>
#include <cstring>

#include "appstore/app_storage.h"
#include "base/result.h"
#include "listing/file_index.h"
#include "listing/list_command.h"
#include "listing/search.h"
#include "media/download.h"
#include "media/hash.h"
#include "media/ripping.h"
#include "media/subtitle.h"
#include "storage/file_commands.h"
#include "storage/manage_commands.h"
#include "transfer/batch.h"
#include "transfer/delete.h"
#include "transfer/selection.h"

namespace plugin {
using base::rc;
namespace {

// A handler of two sub-commands that differ by one flag (copy or move).
template <rc (*run)(VantorXmlNode *, CommandRequest *, int), int flag>
rc with_flag(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    return run(response_slot, request, flag);
}

// Rows are compared in this order.
constexpr std::array user_commands{
    command{"list_user_storage_file", at_least(8), listing::list_user_storage_file},
    command{"search_user_storage_file", exactly(10), listing::search_user_storage_file},
    command{"create_user_storage_file", exactly(2), storage::create_user_storage_file},
    command{"write_user_storage_file", exactly(5), storage::write_user_storage_file},
    command{"read_user_storage_file", exactly(4), storage::read_user_storage_file},
    command{"get_user_storage_file_info", exactly(2), storage::get_user_storage_file_info},
    command{"copy_user_storage_file", exactly(3), with_flag<storage::copy_user_storage_file, 0>},
    command{"move_user_storage_file", exactly(3), with_flag<storage::copy_user_storage_file, 1>},
    command{"backup_user_storage_file", at_least(3), storage::backup_user_storage_file},
    command{"delete_user_storage_file", exactly(2), storage::delete_user_storage_file},
    command{"create_user_storage_directory", exactly(2), storage::create_user_storage_directory},
    command{"rename_user_storage_file", exactly(3), storage::rename_user_storage_file},
    command{"select_user_storage_file_to_list", exactly(3), transfer::select_user_storage_file_to_list},
    command{"delete_user_storage_file_from_list", between(1, 2), transfer::delete_user_storage_file_from_list},
    command{"copy_user_storage_file_from_list", exactly(2), with_flag<transfer::copy_user_storage_file_from_list, 0>},
    command{"move_user_storage_file_from_list", exactly(2), with_flag<transfer::copy_user_storage_file_from_list, 1>},
    command{"search_user_storage_subtitle", exactly(2), media::search_user_storage_subtitle},
    command{"calculate_user_storage_file_hash", exactly(2), media::calculate_user_storage_file_hash},
    command{"verify_user_storage_download_status", exactly(2), media::verify_user_storage_download_status},
    command{"download_user_storage_file", at_least(4), media::download_user_storage_file},
    command{"get_user_storage_file_index", exactly(6), listing::get_user_storage_file_index},
};

constexpr std::array app_commands{
    command{"create_app_storage", exactly(3), appstore::create_app_storage},
    command{"change_app_storage_password", exactly(6), appstore::change_app_storage_password},
    command{"create_app_storage_file", exactly(5), appstore::create_app_storage_file},
    command{"write_app_storage_file", exactly(8), appstore::write_app_storage_file},
    command{"read_app_storage_file", exactly(7), appstore::read_app_storage_file},
    command{"get_app_storage_file_info", exactly(5), appstore::get_app_storage_file_info},
    command{"copy_app_storage_file", exactly(6), appstore::copy_app_storage_file},
    command{"delete_app_storage_file", exactly(5), appstore::delete_app_storage_file},
    command{"delete_app_storage", exactly(4), appstore::delete_app_storage},
    command{"delete_all_app_storage", exactly(2), appstore::delete_all_app_storage},
};

constexpr command_tables tables{user_commands, app_commands, media::ripping};

rc run_row(std::span<const command> rows, const char *name, VantorXmlNode *response_slot,
                CommandRequest *request, int32_t argc) {
    for (const command &row : rows) {
        if (row.name != name) continue;
        if (!row.rule.accepts(argc)) return rc::failure;
        return row.run(response_slot, request);
    }
    return rc::failure;
}

}  // namespace

const command_tables &file_operation_commands() noexcept { return tables; }

namespace {

rc choose_and_run(const command_tables &t, VantorXmlNode *response_slot, CommandRequest *request) {
    if (request == nullptr || request->args == nullptr) return rc::failure;
    CommandArgs *args = request->args;
    if (args->argc < 1 || args->argv[0] == nullptr) return rc::failure;
    const char *name = args->argv[0];
    if (std::strstr(name, "_user_") != nullptr)
        return run_row(t.user, name, response_slot, request, args->argc);
    if (std::strstr(name, "_app_") != nullptr)
        return run_row(t.app, name, response_slot, request, args->argc);
    if (std::strstr(name, "ripping") != nullptr && t.ripping != nullptr)
        return t.ripping(response_slot, request);
    return rc::failure;
}

}  // namespace

int32_t dispatch(const command_tables &t, VantorXmlNode *response_slot,
                 CommandRequest *request) noexcept {
    return base::to_host(choose_and_run(t, response_slot, request));
}

}  // namespace plugin
