// Result codes shared by the handlers; the host reports them to the client
// unchanged.
#pragma once

#include <cstdint>

namespace base {

enum class [[nodiscard]] rc : int32_t {
    no_device = -1,  // ripping: the disc or the target drive is gone
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

// The integer the host reports to the client; converted only where a
// result crosses into the host (the dispatch and the C exports).
constexpr int32_t to_host(rc r) noexcept { return static_cast<int32_t>(r); }
// A code that arrives as an integer (a child's exit status mapped by the
// host's error handler, a stored status): carried through unchanged.
constexpr rc from_host(int32_t code) noexcept { return static_cast<rc>(code); }

}  // namespace base
