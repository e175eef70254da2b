#include "base/io.h"

#include <sys/file.h>
#include <unistd.h>

namespace base {

bool write_all(int fd, const void *data, std::size_t length) noexcept {
    const auto *p = static_cast<const char *>(data);
    while (length > 0) {
        ssize_t n = retry_eintr([&] { return ::write(fd, p, length); });
        if (n <= 0) return false;
        p += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

ssize_t pwrite_all(int fd, const void *data, std::size_t length, off_t offset) noexcept {
    const auto *p = static_cast<const char *>(data);
    std::size_t written = 0;
    while (written < length) {
        ssize_t n = retry_eintr(
            [&] { return ::pwrite(fd, p + written, length - written, offset + static_cast<off_t>(written)); });
        if (n < 1) return n;
        written += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(written);
}

ssize_t read_full(int fd, void *out, std::size_t length) noexcept {
    auto *p = static_cast<char *>(out);
    std::size_t got = 0;
    while (got < length) {
        ssize_t n = retry_eintr([&] { return ::read(fd, p + got, length - got); });
        if (n < 0) return -1;
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

bool copy_rest(int in, int out) noexcept {
    char buffer[8192];
    for (;;) {
        ssize_t n = retry_eintr([&] { return ::read(in, buffer, sizeof buffer); });
        if (n < 0) return false;
        if (n == 0) return true;
        if (!write_all(out, buffer, static_cast<std::size_t>(n))) return false;
    }
}

int lock_file(int fd, int operation) noexcept {
    return retry_eintr([&] { return ::flock(fd, operation); });
}

}  // namespace base
