// Child programs, always started from an argument vector (never a shell).
#pragma once

namespace base {

// How a child program is started.
struct spawn_options {
    bool search_path = true;    // execvp-style lookup of argv[0] (or of file)
    bool quiet_stdout = false;  // standard output to /dev/null
    bool quiet_stderr = false;  // standard error to /dev/null
    // Wall-clock limit in seconds (0: none). A child still running then is
    // killed (SIGKILL) and reaped; its wait status tells the signal.
    int time_limit_seconds = 0;
};

// Runs a program with an argv array (never a shell), waits for that child
// only and returns its wait status as system() would: exit status 127 when
// it could not be started, -1 when no child could be made. `file` is the
// program to execute (argv[0] when null).
int run_program(const char *const argv[], spawn_options options = {},
                const char *file = nullptr) noexcept;

// Exit status of a finished child: bits 8 to 15 of its wait status.
constexpr int exit_code_of(int wait_status) noexcept { return (wait_status >> 8) & 0xff; }

// "rm -rf -- path": removes a file or a whole tree; the wait status of rm.
int remove_tree(const char *path) noexcept;

}  // namespace base
