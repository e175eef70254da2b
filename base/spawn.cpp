#include "base/spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/io.h"

extern char **environ;

namespace base {

namespace {

int wait_for(pid_t pid) noexcept {
    int status = 0;
    return retry_eintr([&] { return ::waitpid(pid, &status, 0); }) < 0 ? -1 : status;
}

double monotonic_seconds() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Waits for the child at most `limit` seconds, polling (no signal handler
// of the host is touched); then kills it and reaps it.
int wait_at_most(pid_t pid, int limit) noexcept {
    const double deadline = monotonic_seconds() + limit;
    long pause_ns = 1000000;  // 1 ms, growing to 50 ms
    for (;;) {
        int status = 0;
        pid_t r = retry_eintr([&] { return ::waitpid(pid, &status, WNOHANG); });
        if (r == pid) return status;
        if (r < 0) return -1;
        if (monotonic_seconds() >= deadline) {
            ::kill(pid, SIGKILL);
            return wait_for(pid);
        }
        timespec pause{0, pause_ns};
        ::nanosleep(&pause, nullptr);
        if (pause_ns < 50000000) pause_ns *= 2;
    }
}

#if FILEOP_HAVE_POSIX_SPAWN
int spawn_child(const char *program, const char *const argv[], spawn_options options, pid_t *pid) noexcept {
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return ENOMEM;
    int err = 0;
    if (options.quiet_stdout)
        err = posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    if (err == 0 && options.quiet_stderr)
        err = posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    if (err == 0) {
        // posix_spawn takes char *const[]; the strings are not modified.
        auto args = const_cast<char *const *>(argv);
        err = options.search_path ? posix_spawnp(pid, program, &actions, nullptr, args, environ)
                                  : posix_spawn(pid, program, &actions, nullptr, args, environ);
    }
    posix_spawn_file_actions_destroy(&actions);
    return err;
}
#else
int spawn_child(const char *program, const char *const argv[], spawn_options options, pid_t *pid) noexcept {
    // Everything the child needs is prepared before vfork; the child only
    // redirects, executes and exits.
    int null_fd = -1;
    if (options.quiet_stdout || options.quiet_stderr) {
        null_fd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null_fd < 0) return errno;
    }
    auto args = const_cast<char *const *>(argv);
    pid_t child = ::vfork();
    if (child == 0) {
        if (options.quiet_stdout) ::dup2(null_fd, STDOUT_FILENO);
        if (options.quiet_stderr) ::dup2(null_fd, STDERR_FILENO);
        if (options.search_path)
            ::execvp(program, args);
        else
            ::execv(program, args);
        ::_exit(127);
    }
    int err = child < 0 ? errno : 0;
    if (null_fd >= 0) ::close(null_fd);
    if (child < 0) {
        std::perror("vfork :\n");
        return err;
    }
    *pid = child;
    return 0;
}
#endif

}  // namespace

int run_program(const char *const argv[], spawn_options options, const char *file) noexcept {
    if (argv == nullptr || argv[0] == nullptr) return -1;
    pid_t pid = -1;
    int err = spawn_child(file != nullptr ? file : argv[0], argv, options, &pid);
    if (err != 0) return pid < 0 && err == EAGAIN ? -1 : 127 << 8;  // could not start: like the shell's 127
    return options.time_limit_seconds > 0 ? wait_at_most(pid, options.time_limit_seconds) : wait_for(pid);
}

int remove_tree(const char *path) noexcept {
    const char *argv[] = {"rm", "-rf", "--", path, nullptr};
    return run_program(argv);
}

}  // namespace base
