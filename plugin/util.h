// Small shared helpers: descriptors, bounded text, argument words and child
// programs. Everything here is re-entrant: the host calls the plug-in from
// several request threads and batch threads run beside them.
#pragma once

#include <dirent.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdarg>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

static_assert(sizeof(off_t) == 8, "build with _FILE_OFFSET_BITS=64");

namespace plugin {

inline constexpr std::size_t path_max = 4096;  // the design's path buffers
using path_buffer = char[path_max];

class unique_fd {  // move-only; close() never retried on EINTR
public:
    explicit unique_fd(int fd = -1) noexcept : fd_(fd) {}
    unique_fd(unique_fd &&o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
    unique_fd &operator=(unique_fd &&o) noexcept {
        if (this != &o) reset(std::exchange(o.fd_, -1));
        return *this;
    }
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    ~unique_fd() { reset(); }
    int get() const noexcept { return fd_; }
    bool valid() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    // Closes now and reports whether close() succeeded (write errors on
    // network shares surface here).
    bool close_checked() noexcept {
        if (fd_ < 0) return true;
        return ::close(std::exchange(fd_, -1)) == 0;
    }

private:
    int fd_;
};

struct dir_closer {
    void operator()(DIR *d) const noexcept { ::closedir(d); }
};
using unique_dir = std::unique_ptr<DIR, dir_closer>;

struct free_deleter {
    void operator()(void *p) const noexcept { ::free(p); }
};
template <typename T>
using unique_malloc = std::unique_ptr<T, free_deleter>;

// snprintf into a fixed buffer; false when the text did not fit (the buffer
// then holds a truncated, terminated text) or formatting failed. Client text
// is only ever passed as an argument of "%s", never as the format.
[[gnu::format(printf, 2, 3)]] bool format_into(std::span<char> out, const char *fmt, ...) noexcept;
bool vformat_into(std::span<char> out, const char *fmt, va_list ap) noexcept;

// Copies text into out; false (and out left holding a terminated prefix)
// when it does not fit with its NUL.
bool copy_text(std::span<char> out, std::string_view text) noexcept;
// Appends text to the terminated text in out; false when it does not fit.
bool append_text(std::span<char> out, std::string_view text) noexcept;

// Text parameters: only "false" (any case) clears a flag that defaults to
// on, only "true" (any case) sets one that defaults to off. Null is neither.
bool is_false_word(const char *text) noexcept;
bool is_true_word(const char *text) noexcept;

bool starts_with(const char *text, std::string_view prefix) noexcept;
bool iequals(std::string_view a, std::string_view b) noexcept;
// strcasestr without relying on the C library's extension.
bool icontains(std::string_view haystack, std::string_view needle) noexcept;

// "smb://" or "nfs://" in the first six characters, case-sensitive.
bool is_network_address(const char *path) noexcept;

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

// Status of a finished child as the design reads it: bits 8 to 15.
constexpr int exit_code_of(int wait_status) noexcept { return (wait_status >> 8) & 0xff; }

}  // namespace plugin
