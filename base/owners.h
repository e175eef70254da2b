// Owners of descriptors, folder streams and malloc'd memory: each is
// released exactly once, on every path out of a function.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <utility>

namespace base {

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

}  // namespace base
