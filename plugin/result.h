// Result codes shared by the handlers; the host reports them to the client
// unchanged.
#pragma once

#include <cstdint>

namespace plugin {

enum class [[nodiscard]] rc : int32_t {
    ok = 0,
    failure = 1,
    busy = 2,
    io = 4,
    bad_argument = 8,
    bad_path = 11,
    missing_source = 12,
    stale_handle = 19,
    no_space = 22,
    open_failed = 27,
    write_failed = 29,
    reopen_failed = 30,
    exists = 52,
    read_only = 60,
    unreachable = 61,
    not_found = 401,
    no_permission = 402,
    no_room = 403,
};

// `return +rc::not_found;` where a handler hands an int32_t to the host.
constexpr int32_t operator+(rc r) noexcept { return static_cast<int32_t>(r); }

}  // namespace plugin
