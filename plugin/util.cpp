#include "plugin/util.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

extern char **environ;

namespace plugin {

bool vformat_into(std::span<char> out, const char *fmt, va_list ap) noexcept {
    if (out.empty()) return false;
    int n = std::vsnprintf(out.data(), out.size(), fmt, ap);
    if (n < 0) {
        out[0] = '\0';
        return false;
    }
    return static_cast<std::size_t>(n) < out.size();
}

bool format_into(std::span<char> out, const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    bool ok = vformat_into(out, fmt, ap);
    va_end(ap);
    return ok;
}

bool copy_text(std::span<char> out, std::string_view text) noexcept {
    if (out.empty()) return false;
    std::size_t n = text.size() < out.size() ? text.size() : out.size() - 1;
    std::memcpy(out.data(), text.data(), n);
    out[n] = '\0';
    return n == text.size();
}

bool append_text(std::span<char> out, std::string_view text) noexcept {
    std::size_t used = ::strnlen(out.data(), out.size());
    if (used >= out.size()) return false;
    return copy_text(out.subspan(used), text);
}

namespace {
char lower(char c) noexcept { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
}  // namespace

bool iequals(std::string_view a, std::string_view b) noexcept {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (lower(a[i]) != lower(b[i])) return false;
    return true;
}

bool icontains(std::string_view haystack, std::string_view needle) noexcept {
    if (needle.empty()) return true;
    if (needle.size() > haystack.size()) return false;
    for (std::size_t i = 0; i + needle.size() <= haystack.size(); ++i)
        if (iequals(haystack.substr(i, needle.size()), needle)) return true;
    return false;
}

bool is_false_word(const char *text) noexcept { return text != nullptr && iequals(text, "false"); }
bool is_true_word(const char *text) noexcept { return text != nullptr && iequals(text, "true"); }

bool starts_with(const char *text, std::string_view prefix) noexcept {
    return text != nullptr && std::strncmp(text, prefix.data(), prefix.size()) == 0;
}

bool is_network_address(const char *path) noexcept {
    return starts_with(path, "smb://") || starts_with(path, "nfs://");
}

namespace {

int wait_for(pid_t pid) noexcept {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
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
        pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid) return status;
        if (r < 0 && errno != EINTR) return -1;
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

}  // namespace plugin
