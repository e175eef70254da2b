// Descriptor I/O that survives signals: every call here retries EINTR, so
// callers never write that loop themselves.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstddef>

namespace base {

// Calls `call` again while it fails with EINTR; its last result.
template <typename Call>
auto retry_eintr(Call call) noexcept(noexcept(call())) {
    auto r = call();
    while (r < 0 && errno == EINTR) r = call();
    return r;
}

// write() until all of it is written; false on an error or a zero write.
bool write_all(int fd, const void *data, std::size_t length) noexcept;
// pwrite() of all of it at offset: the full length, or the result of the
// last call when it came short (so below 1 on failure).
ssize_t pwrite_all(int fd, const void *data, std::size_t length, off_t offset) noexcept;
// read() until `length` bytes or the end of the file: the bytes read, or -1
// (errno set) when a read failed.
ssize_t read_full(int fd, void *out, std::size_t length) noexcept;
// Copies from the offset of `in` to the end of the file into `out`.
bool copy_rest(int in, int out) noexcept;
// flock() with `operation`: 0, or -1 with errno.
int lock_file(int fd, int operation) noexcept;

}  // namespace base
