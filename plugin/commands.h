// The sub-command vocabulary: one row per sub-command, in the order in which
// names are compared, with its argument-count rule and its handler.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "base/result.h"
#include "platform/host_api.h"

namespace plugin {

// Handlers get the address of the slot holding the response element and the
// request; the result goes to the host unchanged.
using handler_fn = base::rc(VantorXmlNode *response_slot, CommandRequest *request);

struct arg_rule {
    int32_t low;   // smallest accepted argc
    int32_t high;  // largest accepted argc; 0 = no upper bound
    constexpr bool accepts(int32_t argc) const noexcept {
        return argc >= low && (high == 0 || argc <= high);
    }
};
constexpr arg_rule exactly(int32_t n) { return {n, n}; }
constexpr arg_rule at_least(int32_t n) { return {n, 0}; }
constexpr arg_rule between(int32_t lo, int32_t hi) { return {lo, hi}; }

struct command {
    std::string_view name;
    arg_rule rule;
    handler_fn *run;
};

struct command_tables {
    std::span<const command> user;  // names holding "_user_"
    std::span<const command> app;   // names holding "_app_"
    handler_fn *ripping;            // names holding "ripping": no count check
};

// The plug-in's own tables.
const command_tables &file_operation_commands() noexcept;

// Picks the group by substring, the row by exact name, checks the count and
// runs the handler; 1 for an unknown name or a refused count.
int32_t dispatch(const command_tables &tables, VantorXmlNode *response_slot,
                 CommandRequest *request) noexcept;

}  // namespace plugin
