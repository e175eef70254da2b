#include "transfer/engine.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__mips__)
#include <sys/cachectl.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <vector>

#include "listing/order.h"
#include "platform/host_api.h"
#include "plugin/result.h"
#include "storage/paths.h"

namespace transfer {

std::atomic<int> quiet_file_start{0};

namespace {

using plugin::rc;

constexpr int64_t sixteen_mib = 16777216;
constexpr uid_t user_owner = 1001;
constexpr gid_t user_group = 1001;


// The figures every event of one operation shares.
struct reporter {
    TransferProgress &progress;
    uint32_t operation;
    const char *filename;
    const char *from;
    const char *to;

    // An event whose figures leave out `unread` bytes of the counts.
    void send(int32_t percent, int64_t unread, int32_t status) const noexcept {
        const int64_t whole_done = progress.whole_done - unread;
        post_transfer_event(operation, filename, from, to, progress.item, progress.total, percent,
                            percent_of(whole_done, progress.whole_total),
                            compute_time_left(whole_done, progress.whole_total), status);
    }
    // Item percent, whole percent and time left as they stand.
    void send_current(int32_t status) const noexcept {
        send(percent_of(progress.item_done, progress.item_total), 0, status);
    }
};

// Buffers read from network shares are flushed from the data cache before
// they are written (the player's network client fills them behind the
// cache's back). Elsewhere this is a no-op.
void flush_data_cache(void *buffer, ssize_t length) noexcept {
#if defined(__mips__)
    ::cacheflush(buffer, static_cast<int>(length), DCACHE);
#else
    (void)buffer;
    (void)length;
#endif
}

struct aligned_buffer {
    plugin::unique_malloc<char> data;
    std::size_t size = 0;
};

aligned_buffer allocate_copy_buffer() noexcept {
    for (std::size_t size = copy_buffer_size; size >= copy_buffer_min; size /= 2) {
        void *p = nullptr;
        if (::posix_memalign(&p, copy_alignment, size) == 0)
            return {plugin::unique_malloc<char>(static_cast<char *>(p)), size};
    }
    return {};
}

bool set_direct(int fd) noexcept {
    int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_DIRECT) == 0;
}

int open_source(const char *path) noexcept { return ::open(path, O_RDONLY | O_CLOEXEC); }

int create_target(const char *path) noexcept {
    return ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0777);
}

ssize_t read_some(int fd, char *buffer, std::size_t size) noexcept {
    for (;;) {
        ssize_t n = ::read(fd, buffer, size);
        if (n < 0 && errno == EINTR) continue;
        return n;
    }
}

// Writes all of it; the result of the last write() when it came short (so
// below 1 on failure), else the full length.
ssize_t write_all(int fd, const char *buffer, std::size_t length) noexcept {
    std::size_t written = 0;
    while (written < length) {
        ssize_t n = ::write(fd, buffer + written, length - written);
        if (n < 0 && errno == EINTR) continue;
        if (n < 1) return n;
        written += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(written);
}

// Writes one chunk at a time on a helper thread while the copy reads the
// next chunk into the other half of its buffer: a direct read and a direct
// write are then in flight together, as the cache's read-ahead and
// write-back would overlap them.
class background_writer {
public:
    background_writer() noexcept = default;
    background_writer(const background_writer &) = delete;
    background_writer &operator=(const background_writer &) = delete;
    ~background_writer() {
        if (!started_) return;
        ::pthread_mutex_lock(&mutex_);
        quit_ = true;
        ::pthread_cond_broadcast(&cond_);
        ::pthread_mutex_unlock(&mutex_);
        ::pthread_join(thread_, nullptr);
    }
    // False when no helper thread could be started (the copy then writes
    // every chunk itself).
    bool start() noexcept {
        started_ = ::pthread_create(&thread_, nullptr, &background_writer::run, this) == 0;
        return started_;
    }
    void submit(int fd, const char *data, std::size_t length) noexcept {
        ::pthread_mutex_lock(&mutex_);
        fd_ = fd;
        data_ = data;
        length_ = length;
        busy_ = true;
        ::pthread_cond_broadcast(&cond_);
        ::pthread_mutex_unlock(&mutex_);
    }
    // Waits for the chunk in flight; the result of its write (below 1 on
    // failure, with the error number in *error), then forgotten.
    ssize_t wait(int *error) noexcept {
        ::pthread_mutex_lock(&mutex_);
        while (busy_) ::pthread_cond_wait(&cond_, &mutex_);
        ssize_t result = result_;
        *error = error_;
        result_ = 1;
        error_ = 0;
        ::pthread_mutex_unlock(&mutex_);
        return result;
    }

private:
    static void *run(void *self) noexcept {
        auto *w = static_cast<background_writer *>(self);
        ::pthread_mutex_lock(&w->mutex_);
        for (;;) {
            while (!w->busy_ && !w->quit_) ::pthread_cond_wait(&w->cond_, &w->mutex_);
            if (w->quit_) break;
            const int fd = w->fd_;
            const char *data = w->data_;
            const std::size_t length = w->length_;
            ::pthread_mutex_unlock(&w->mutex_);
            const ssize_t put = write_all(fd, data, length);
            const int error = errno;
            ::pthread_mutex_lock(&w->mutex_);
            if (put < 1) {
                w->result_ = put;
                w->error_ = error;
            }
            w->busy_ = false;
            ::pthread_cond_broadcast(&w->cond_);
        }
        ::pthread_mutex_unlock(&w->mutex_);
        return nullptr;
    }

    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond_ = PTHREAD_COND_INITIALIZER;
    pthread_t thread_{};
    bool started_ = false;
    bool quit_ = false;
    bool busy_ = false;
    int fd_ = -1;
    const char *data_ = nullptr;
    std::size_t length_ = 0;
    ssize_t result_ = 1;
    int error_ = 0;
};

// Waits for the chunk in flight; false (and the write error reported) when
// its write failed.
bool drain(background_writer &writer) noexcept {
    int error = 0;
    const ssize_t put = writer.wait(&error);
    if (put >= 1) return true;
    std::fprintf(stderr, "write error=%d %d\n", error, static_cast<int>(put));
    return false;
}

}  // namespace

const char *base_name(const char *path) noexcept {
    if (path == nullptr) return "";
    const char *slash = std::strrchr(path, '/');
    return slash == nullptr ? "" : slash + 1;
}

int32_t copy_file_with_progress(const char *source, const char *target, TransferProgress &progress,
                                uint32_t operation, const char *from, const char *to) noexcept {
    const reporter report{progress, operation, base_name(source), from, to};
    const int64_t size = filesize64(source);
    if (size == 0) {
        plugin::unique_fd empty(create_target(target));
        if (empty.valid() && empty.close_checked()) return +rc::ok;
    }
    if (size <= 0 || !fits_destination(progress.permission_kind, size)) {
        report.send_current(+rc::io);
        return +rc::io;
    }
    aligned_buffer buffer = allocate_copy_buffer();
    if (buffer.data == nullptr) {
        report.send_current(+rc::io);
        return +rc::io;
    }
    char *const data = buffer.data.get();
    const auto chunk = static_cast<int64_t>(buffer.size);

    int64_t threshold = report_threshold(progress, size);
    int64_t steps_done = progress.step > 0 ? progress.item_done / progress.step : 0;
    int64_t remaining = size;
    progress.item_done += size;
    progress.whole_done += size;
    const bool from_network = std::strstr(source, "/NETWORK_SHARE/") != nullptr;

    int32_t code = 0;
    plugin::unique_fd in(open_source(source));
    plugin::unique_fd out;
    if (in.valid()) out.reset(create_target(target));
    if (!in.valid() || !out.valid()) code = +rc::open_failed;

    // Files of more than one buffer are copied in two halves, the write of
    // one overlapping the read of the next.
    background_writer writer;
    const bool overlap = code == 0 && size > chunk && writer.start();
    const std::size_t chunk_size = overlap ? buffer.size / 2 : buffer.size;
    bool direct_write = false;
    bool direct_read = false;
    std::size_t prefetched = 0;  // probe bytes already at the start of the buffer
    bool probe_reached_end = false;
    if (code == 0) {
        struct stat st{};
        if (::fstat(in.get(), &st) == 0 && st.st_size >= 1024 && set_direct(in.get())) {
            // The test read: one block, or the whole file when it fits one
            // chunk (then it is the only read the file costs). Its bytes
            // are kept as the start of the first chunk.
            const std::size_t probe_size =
                size <= static_cast<int64_t>(chunk_size)
                    ? static_cast<std::size_t>((size + copy_alignment - 1) / copy_alignment * copy_alignment)
                    : copy_alignment;
            const ssize_t probe = read_some(in.get(), data, probe_size);
            if (probe > 0) {
                std::fputs("read  - Using DIRECT IO !!!\n", stderr);
                direct_read = true;
                prefetched = static_cast<std::size_t>(probe);
                probe_reached_end = prefetched < probe_size || probe_size == chunk_size ||
                                    prefetched % copy_alignment != 0;
            } else {
                std::fputs("read  - Normal read !!!\n", stderr);
                in.reset(open_source(source));
                if (!in.valid()) code = +rc::reopen_failed;
            }
        }
    }
    if (code == 0 && std::strstr(target, "SATA_") == nullptr && set_direct(out.get())) {
        direct_write = true;
        std::fputs("write - Using DIRECT IO !!!\n", stderr);
    }
    if (code == 0 && quiet_file_start.load(std::memory_order_relaxed) == 0) {
        // The start event's percent is a fraction without the factor 100:
        // it reads 0.
        const int32_t percent =
            progress.item_total == 0 ? 0 : static_cast<int32_t>((progress.item_done - size) / progress.item_total);
        report.send(percent, size, 0);
    }

    const auto step_bytes = static_cast<int64_t>(chunk_size);
    char *const halves[2] = {data, data + (overlap ? chunk_size : 0)};
    int half = 0;
    bool first_write = true;
    while (code == 0) {
        char *const part = halves[half];
        ssize_t got;
        if (prefetched > 0) {
            got = static_cast<ssize_t>(prefetched);
            if (!probe_reached_end) {
                const ssize_t more = read_some(in.get(), part + prefetched, chunk_size - prefetched);
                got = more < 0 ? -1 : got + more;
            }
            prefetched = 0;
        } else {
            got = read_some(in.get(), part, chunk_size);
        }
        if (got < 0) {
            // A read error is not the end of the file: the copy is
            // incomplete and a move must keep its source.
            code = +rc::open_failed;
            break;
        }
        if (got < 1) break;
        remaining = remaining < step_bytes ? 0 : remaining - step_bytes;
        if (overlap && !drain(writer)) {
            code = +rc::write_failed;
            break;
        }
        if (got < step_bytes && direct_read) {
            // Past a short read the offset is unaligned: read on through
            // the cache.
            const int flags = ::fcntl(in.get(), F_GETFL);
            if (flags >= 0) ::fcntl(in.get(), F_SETFL, flags & ~O_DIRECT);
            direct_read = false;
        }
        if (got < step_bytes) {
            // The unaligned tail goes through the cache.
            out.reset(::open(target, O_WRONLY | O_CLOEXEC));
            if (!out.valid() || ::lseek(out.get(), 0, SEEK_END) < 0) {
                code = +rc::write_failed;
                break;
            }
            direct_write = false;
        }
        if (from_network) flush_data_cache(part, got);
        if (overlap && !first_write && got == step_bytes) {
            writer.submit(out.get(), part, static_cast<std::size_t>(got));
        } else {
            ssize_t put = write_all(out.get(), part, static_cast<std::size_t>(got));
            if (put < 1 && first_write && direct_write) {
                out.reset(create_target(target));
                direct_write = false;
                put = out.valid() ? write_all(out.get(), part, static_cast<std::size_t>(got)) : -1;
            }
            if (put < 1) {
                std::fprintf(stderr, "write error=%d %d\n", errno, static_cast<int>(put));
                code = +rc::write_failed;
                break;
            }
        }
        first_write = false;
        if (remaining < threshold) {
            const int64_t percent = progress.step == sixteen_mib
                                        ? (progress.item_done - threshold) * 100 / progress.item_total
                                        : steps_done + 1;
            steps_done = percent;
            report.send(static_cast<int32_t>(percent), threshold, 0);
            threshold -= progress.step;
        }
        if (overlap) half ^= 1;
    }
    if (overlap && !drain(writer) && code == 0) code = +rc::write_failed;
    if (remaining == 0) report.send(percent_of(progress.item_done, progress.item_total), 0, 0);

    in.reset();
    if (out.valid() && !out.close_checked() && code == 0) {
        std::fprintf(stderr, "write error=%d %d\n", errno, -1);
        code = +rc::write_failed;
    }
    if (code == 0) return +rc::ok;
    report.send(percent_of(progress.item_done - remaining, progress.item_total), remaining, code);
    return code;
}

namespace {

struct folder_entry {
    std::string name;
    unsigned char d_type;  // as read: the listing order's folder test
    bool is_folder;        // followed through links: copied as a folder
};

// The source folder's entries without "." and "..", folders first, then in
// natural name order. False when the folder cannot be read.
bool list_folder(const char *folder, std::vector<folder_entry> &entries) noexcept {
    int fd = ::open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    plugin::unique_dir dir(::fdopendir(fd));
    if (dir == nullptr) {
        ::close(fd);
        return false;
    }
#if defined(__cpp_exceptions)
    try {
#endif
        for (;;) {
            errno = 0;
            const dirent *e = ::readdir(dir.get());
            if (e == nullptr) break;
            if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
            bool is_folder = e->d_type == DT_DIR;
            if (e->d_type == DT_UNKNOWN || e->d_type == DT_LNK) {
                struct stat st{};
                is_folder = ::fstatat(::dirfd(dir.get()), e->d_name, &st, 0) == 0 && S_ISDIR(st.st_mode);
            }
            entries.push_back({e->d_name, e->d_type, is_folder});
        }
        std::sort(entries.begin(), entries.end(), [](const folder_entry &a, const folder_entry &b) {
            listing::sort_entry x, y;
            x.name = a.name.c_str();
            x.d_type = a.d_type;
            y.name = b.name.c_str();
            y.d_type = b.d_type;
            return listing::compare_name_ascending(x, y) < 0;
        });
#if defined(__cpp_exceptions)
    } catch (...) {
        return false;
    }
#endif
    return true;
}

}  // namespace

int32_t copy_folder_with_progress(plugin::path_buffer &source, plugin::path_buffer &target,
                                  TransferProgress &progress, uint32_t operation, const char *from,
                                  const char *to) noexcept {
    const reporter report{progress, operation, base_name(source), from, to};
    std::size_t source_length = std::strlen(source);
    std::size_t target_length = std::strlen(target);
    if (source_length >= plugin::path_max - 1 || target_length >= plugin::path_max - 1) {
        report.send_current(+rc::bad_path);
        return +rc::bad_path;
    }
    if (::mkdir(target, 0777) != 0) {
        report.send_current(+rc::io);
        return +rc::io;
    }
    progress.item_done += 4096;
    progress.whole_done += 4096;
    (void)::chown(target, user_owner, user_group);
    if (source_length == 0 || source[source_length - 1] != '/') source[source_length++] = '/', source[source_length] = '\0';
    if (target[target_length - 1] != '/') target[target_length++] = '/', target[target_length] = '\0';

    std::vector<folder_entry> entries;
    if (!list_folder(source, entries)) {
        std::fprintf(stderr, "source[%s] no contents\n", source);
        // Nothing was copied: a move must not remove this source.
        quiet_file_start.store(0, std::memory_order_relaxed);
        report.send_current(+rc::open_failed);
        return +rc::open_failed;
    }
    int32_t result = 0;
    for (auto e = entries.rbegin(); e != entries.rend() && result == 0; ++e) {
        const std::size_t name_length = e->name.size();
        if (source_length + name_length >= plugin::path_max || target_length + name_length >= plugin::path_max)
            continue;
        std::memcpy(source + source_length, e->name.c_str(), name_length + 1);
        if ((e->d_type == DT_LNK || e->d_type == DT_UNKNOWN) && storage::link_leads_out(source)) {
            source[source_length] = '\0';  // a link leading out of the drives root is not followed
            continue;
        }
        std::memcpy(target + target_length, e->name.c_str(), name_length + 1);
        result = e->is_folder ? copy_folder_with_progress(source, target, progress, operation, from, to)
                              : copy_file_with_progress(source, target, progress, operation, from, to);
        (void)::lchown(target, user_owner, user_group);
        source[source_length] = '\0';
        target[target_length] = '\0';
        quiet_file_start.store(1, std::memory_order_relaxed);
    }
    quiet_file_start.store(0, std::memory_order_relaxed);
    return result;
}

int32_t move_by_rename(const char *source, const char *target, TransferProgress &progress, const char *from,
                       const char *to) noexcept {
    const reporter report{progress, op_move, base_name(source), from, to};
    if (isfileexist(source) == 0) {
        report.send(0, 0, +rc::missing_source);
        return +rc::missing_source;
    }
    report.send(0, 0, 0);
    const char *argv[] = {"mv", "--", source, target, nullptr};
    plugin::spawn_options quiet;
    quiet.quiet_stderr = true;
    if (plugin::run_program(argv, quiet) != 0) {
        report.send(0, 0, +rc::io);
        return +rc::io;
    }
    progress.item_done = progress.item_total;
    progress.whole_done += progress.item_total;
    report.send(100, 0, 0);
    return +rc::ok;
}

bool make_target_path(std::span<char> out, char *folder, const char *name, bool unique) noexcept {
    std::size_t length = std::strlen(folder);
    if (length > 0 && folder[length - 1] == '/') folder[length - 1] = '\0';
    const char *separator = name[0] == '/' ? "" : "/";
    if (!plugin::format_into(out, "%s%s%s", folder, separator, name)) return false;
    if (!unique || isfileexist(out.data()) == 0) return true;
    const char *bare = name[0] == '/' ? name + 1 : name;
    for (int counter = 1; counter > 0; ++counter) {
        if (!plugin::format_into(out, "%s/copy_%d_of_%s", folder, counter, bare)) return false;
        if (isfileexist(out.data()) == 0) return true;
    }
    return false;
}

}  // namespace transfer
