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

#include "base/io.h"
#include "base/natural_order.h"
#include "base/result.h"
#include "base/spawn.h"
#include "platform/host_api.h"
#include "storage/paths.h"
#include "base/folders.h"

namespace transfer {

namespace {

using base::rc;

constexpr int64_t sixteen_mib = 16777216;
// Folder levels a tree copy goes down; a deeper folder fails as a too long
// path does.
constexpr int folder_depth_max = 64;

// The figures every event of one operation shares.
struct reporter {
    TransferProgress &progress;
    uint32_t operation;
    const char *filename;
    const char *from;
    const char *to;

    // An event whose figures leave out `unread` bytes of the counts.
    void send(int32_t percent, int64_t unread, base::rc status) const noexcept {
        const int64_t whole_done = progress.whole_done - unread;
        post_transfer_event(operation, filename, from, to, progress.item, progress.total, percent,
                            percent_of(whole_done, progress.whole_total),
                            compute_time_left(whole_done, progress.whole_total), status);
    }
    // Item percent, whole percent and time left as they stand.
    void send_current(base::rc status) const noexcept {
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

bool set_direct(int fd, bool on) noexcept {
    int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, on ? flags | O_DIRECT : flags & ~O_DIRECT) == 0;
}

// Opens a file, asking for direct input and output when `direct` is set; a
// file system without it (EINVAL) gets a cached descriptor and *direct is
// cleared.
int open_maybe_direct(const char *path, int flags, bool *direct) noexcept {
    if (*direct) {
        int fd = ::open(path, flags | O_DIRECT, 0777);
        if (fd >= 0 || errno != EINVAL) return fd;
        *direct = false;
    }
    return ::open(path, flags, 0777);
}

constexpr int source_flags = O_RDONLY | O_CLOEXEC;
constexpr int target_flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW;

// Reads up to `length` bytes at `offset`, going on after short reads until
// the buffer is full, a read returns 0, or a short read reaches `size` (the
// file's length when the copy began: the end). A descriptor left unaligned
// by a short direct read reads on through the cache. The bytes read, or -1
// with the error number in *error when nothing could be read.
ssize_t read_chunk(int fd, char *buffer, std::size_t length, int64_t offset, int64_t size, int *error) noexcept {
    std::size_t total = 0;
    while (total < length) {
        ssize_t n = base::retry_eintr(
            [&] { return ::pread(fd, buffer + total, length - total, offset + static_cast<int64_t>(total)); });
        if (n < 0 && errno == EINVAL && total > 0 && set_direct(fd, false)) continue;
        if (n < 0) {
            *error = errno;
            return total > 0 ? static_cast<ssize_t>(total) : -1;
        }
        if (n == 0) break;
        total += static_cast<std::size_t>(n);
        if (total < length && offset + static_cast<int64_t>(total) >= size) break;
    }
    return static_cast<ssize_t>(total);
}

constexpr int ring_slots = 4;
constexpr int ring_readers = 2;
constexpr std::size_t cached_targets_max = 32;

}  // namespace

namespace {

enum prefetch_state { pf_free, pf_queued, pf_reading, pf_ready };

// A small file read ahead by a reader: its descriptor, opened as the copy
// would open it, and its bytes. The direct-read test's outcome waits for
// the batch thread, which reports it when it copies the file.
struct prefetch_record {
    base::path_buffer path;
    prefetch_state state = pf_free;
    uint64_t order = 0;
    int fd = -1;
    bool direct = false;
    int64_t size = 0;
    ssize_t got = -1;
};

}  // namespace

// The shared part of a batch's copy ring. The mutex guards the reading
// state; each buffer belongs either to the batch thread or, while its chunk
// is read, to one reader.
struct ring_state {
    char *slot[ring_slots] = {};
    std::size_t slot_size = 0;
    int slots = 0;

    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t wake = PTHREAD_COND_INITIALIZER;  // readers wait for work
    pthread_cond_t read = PTHREAD_COND_INITIALIZER;  // the batch thread waits for chunks
    pthread_t reader[ring_readers]{};
    int readers = 0;  // threads running
    bool quit = false;
    // The file being read ahead (fd -1: none). Chunk k lies k * slot_size
    // bytes into it and is read into slot k % slots once chunk k - slots
    // has been given back.
    int fd = -1;
    int64_t size = 0;
    int64_t next = 0;         // next chunk to read
    int64_t given_back = 0;   // chunks below it are written
    int64_t last = INT64_MAX; // first chunk found short: nothing past it is read
    int busy = 0;             // reads in flight
    int64_t chunk_of[ring_slots] = {-1, -1, -1, -1};
    ssize_t got[ring_slots] = {};
    int error[ring_slots] = {};

    // Files of a folder read ahead whole, one into each buffer but the
    // first, while earlier ones are written (only while no file is read
    // ahead chunk by chunk). Record j reads into buffer j + 1.
    prefetch_record ahead[ring_slots - 1];
    uint64_t queued = 0;  // order of the requests

    // Duplicates of targets written through the cache: their pages are
    // dropped (POSIX_FADV_DONTNEED) when the next ones come, after the
    // write-back started at their close had time to finish.
    int cached[cached_targets_max] = {};
    std::size_t cached_count = 0;
};

namespace {

// Whole-file probe length of the direct-read test: an odd number of
// 512-byte blocks past the end of a file of `size` bytes, so that a device
// needing larger blocks refuses it as it refuses one block.
std::size_t whole_probe(int64_t size) noexcept {
    const int64_t blocks = size / static_cast<int64_t>(copy_alignment) + 1;
    return static_cast<std::size_t>((blocks | 1) * static_cast<int64_t>(copy_alignment));
}

// Opens and reads one small file ahead (on a reader, unlocked). Leaves
// got -1 when the batch thread should do it all itself.
void read_file_ahead(prefetch_record &f, char *buffer, std::size_t buffer_size) noexcept {
    f.direct = true;
    f.fd = open_maybe_direct(f.path, source_flags | O_NONBLOCK, &f.direct);  // never waits on a FIFO
    struct stat st{};
    if (f.fd < 0 || ::fstat(f.fd, &st) != 0 || !S_ISREG(st.st_mode)) return;
    f.size = st.st_size;
    if (f.direct && f.size < 1024) f.direct = ::fcntl(f.fd, F_SETFL, 0) != 0;  // O_DIRECT off
    const std::size_t length = f.direct ? whole_probe(f.size) : buffer_size;
    if (f.direct && length > buffer_size) return;
    int error = 0;
    ssize_t n = f.direct ? base::retry_eintr([&] { return ::pread(f.fd, buffer, length, 0); })
                         : read_chunk(f.fd, buffer, length, 0, f.size, &error);
    // Only a file read whole is kept.
    if (n == f.size && n > 0 && static_cast<std::size_t>(n) < length) f.got = n;
}

void *read_ahead(void *argument) noexcept {
    auto &r = *static_cast<ring_state *>(argument);
    ::pthread_mutex_lock(&r.mutex);
    for (;;) {
        prefetch_record *file = nullptr;
        for (;;) {
            if (r.quit || (r.fd >= 0 && r.next <= r.last && r.next - r.given_back < r.slots)) break;
            for (auto &f : r.ahead)
                if (f.state == pf_queued && (file == nullptr || f.order < file->order)) file = &f;
            if (file != nullptr) break;
            ::pthread_cond_wait(&r.wake, &r.mutex);
        }
        if (r.quit) break;
        if (file != nullptr) {
            file->state = pf_reading;
            char *const buffer = r.slot[file - r.ahead + 1];
            ::pthread_mutex_unlock(&r.mutex);
            read_file_ahead(*file, buffer, r.slot_size);
            ::pthread_mutex_lock(&r.mutex);
            file->state = pf_ready;
            ::pthread_cond_broadcast(&r.read);
            continue;
        }
        const int64_t chunk = r.next++;
        const int s = static_cast<int>(chunk % r.slots);
        const int fd = r.fd;
        const int64_t size = r.size;
        ++r.busy;
        ::pthread_mutex_unlock(&r.mutex);
        int error = 0;
        const ssize_t n = read_chunk(fd, r.slot[s], r.slot_size, chunk * static_cast<int64_t>(r.slot_size), size, &error);
        ::pthread_mutex_lock(&r.mutex);
        --r.busy;
        r.chunk_of[s] = chunk;
        r.got[s] = n;
        r.error[s] = error;
        if (n < static_cast<ssize_t>(r.slot_size) && chunk < r.last) r.last = chunk;
        ::pthread_cond_broadcast(&r.read);
    }
    ::pthread_mutex_unlock(&r.mutex);
    return nullptr;
}

// Forgets a record (mutex held): its descriptor closed, its buffer free.
void free_record(prefetch_record &f) noexcept {
    if (f.fd >= 0) ::close(f.fd);
    f.fd = -1;
    f.got = -1;
    f.state = pf_free;
}

// Drops every file read ahead, waiting for reads in flight (mutex held).
void cancel_prefetches_locked(ring_state &r) noexcept {
    for (;;) {
        bool reading = false;
        for (auto &f : r.ahead) {
            if (f.state == pf_reading) reading = true;
            else if (f.state != pf_free) free_record(f);
        }
        if (!reading) return;
        ::pthread_cond_wait(&r.read, &r.mutex);
    }
}

void cancel_prefetches(ring_state &r) noexcept {
    ::pthread_mutex_lock(&r.mutex);
    cancel_prefetches_locked(r);
    ::pthread_mutex_unlock(&r.mutex);
}

// Asks the readers to read a file ahead; false when no buffer is free.
bool request_prefetch(ring_state &r, const char *path) noexcept {
    if (r.readers == 0) return false;
    bool queued = false;
    ::pthread_mutex_lock(&r.mutex);
    for (int j = 0; j + 1 < r.slots; ++j) {  // record j reads into buffer j + 1
        prefetch_record &f = r.ahead[j];
        if (r.fd >= 0 || f.state != pf_free || !base::copy_text(f.path, path)) continue;
        f.state = pf_queued;
        f.order = r.queued++;
        queued = true;
        ::pthread_cond_broadcast(&r.wake);
        break;
    }
    ::pthread_mutex_unlock(&r.mutex);
    return queued;
}

// The record holding `path` read whole when it still has `size` bytes,
// now the batch thread's; else nullptr (and the record, if any, dropped).
prefetch_record *claim_prefetch(ring_state &r, const char *path, int64_t size) noexcept {
    prefetch_record *found = nullptr;
    ::pthread_mutex_lock(&r.mutex);
    for (auto &f : r.ahead)
        if (f.state != pf_free && std::strcmp(f.path, path) == 0) found = &f;
    while (found != nullptr && found->state == pf_reading) ::pthread_cond_wait(&r.read, &r.mutex);
    if (found != nullptr && (found->state != pf_ready || found->got < 0 || found->size != size)) {
        free_record(*found);
        found = nullptr;
    }
    ::pthread_mutex_unlock(&r.mutex);
    return found;
}

// Gives a claimed record back; `closed`: its descriptor was the copy's.
void release_prefetch(ring_state &r, prefetch_record &f, bool closed) noexcept {
    ::pthread_mutex_lock(&r.mutex);
    if (closed) f.fd = -1;
    free_record(f);
    ::pthread_cond_broadcast(&r.wake);
    ::pthread_mutex_unlock(&r.mutex);
}

// The ring's buffers: the first of copy_buffer_size, halved on failure down
// to copy_buffer_min; up to three more of the same size as memory allows.
bool allocate_slots(ring_state &r) noexcept {
    for (std::size_t size = copy_buffer_size; r.slots == 0 && size >= copy_buffer_min; size /= 2) {
        void *p = nullptr;
        if (::posix_memalign(&p, 4096, size) == 0) {
            r.slot[0] = static_cast<char *>(p);
            r.slot_size = size;
            r.slots = 1;
        }
    }
    while (r.slots > 0 && r.slots < ring_slots) {
        void *p = nullptr;
        if (::posix_memalign(&p, 4096, r.slot_size) != 0) break;
        r.slot[r.slots++] = static_cast<char *>(p);
    }
    return r.slots > 0;
}

// Drops the cached pages of the oldest deferred target.
void drop_oldest_cached(ring_state &r) noexcept {
    if (r.cached_count == 0) return;
#if defined(SYNC_FILE_RANGE_WAIT_AFTER)
    // Pages still being written back would stay.
    (void)::sync_file_range(r.cached[0], 0, 0, SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE |
                                                   SYNC_FILE_RANGE_WAIT_AFTER);
#endif
    (void)::posix_fadvise(r.cached[0], 0, 0, POSIX_FADV_DONTNEED);
    ::close(r.cached[0]);
    std::memmove(r.cached, r.cached + 1, (r.cached_count - 1) * sizeof r.cached[0]);
    --r.cached_count;
}

// The target was written (partly) through the cache: start its write-back
// now and drop its pages later.
void defer_cached_target(ring_state &r, int fd) noexcept {
    (void)::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    if (r.cached_count == cached_targets_max) drop_oldest_cached(r);
    const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (copy >= 0) r.cached[r.cached_count++] = copy;
}

// Hands the file to the readers from chunk `first` on; the chunks before
// it are the batch thread's.
void start_readers(ring_state &r) noexcept {
    if (r.slots < 2) return;
    ::pthread_mutex_lock(&r.mutex);
    while (r.readers < ring_readers && ::pthread_create(&r.reader[r.readers], nullptr, read_ahead, &r) == 0)
        ++r.readers;
    ::pthread_mutex_unlock(&r.mutex);
}

void start_reading(ring_state &r, int fd, int64_t size, int64_t first) noexcept {
    start_readers(r);
    ::pthread_mutex_lock(&r.mutex);
    cancel_prefetches_locked(r);
    if (r.readers > 0) {
        r.fd = fd;
        r.size = size;
        r.next = first;
        r.given_back = 0;
        r.last = INT64_MAX;
        ::pthread_cond_broadcast(&r.wake);
    }
    ::pthread_mutex_unlock(&r.mutex);
}

// Ends the reading of the current file: no reader touches it or the
// buffers afterwards.
void stop_reading(ring_state &r) noexcept {
    ::pthread_mutex_lock(&r.mutex);
    r.fd = -1;
    while (r.busy > 0) ::pthread_cond_wait(&r.read, &r.mutex);
    for (int64_t &c : r.chunk_of) c = -1;
    ::pthread_mutex_unlock(&r.mutex);
}

// Chunk k of the file into its slot: from the readers when they read this
// file, else read here. The bytes read (-1: error in *error).
ssize_t take_chunk(ring_state &r, int fd, int64_t size, int64_t k, int *error) noexcept {
    const int s = static_cast<int>(k % r.slots);
    ::pthread_mutex_lock(&r.mutex);
    const bool ahead = r.fd >= 0;
    while (ahead && r.chunk_of[s] != k) ::pthread_cond_wait(&r.read, &r.mutex);
    const ssize_t n = ahead ? r.got[s] : 0;
    *error = ahead ? r.error[s] : 0;
    ::pthread_mutex_unlock(&r.mutex);
    if (ahead) return n;
    if (k > 0) cancel_prefetches(r);
    return read_chunk(fd, r.slot[s], r.slot_size, k * static_cast<int64_t>(r.slot_size), size, error);
}

void give_back(ring_state &r, int64_t k) noexcept {
    ::pthread_mutex_lock(&r.mutex);
    r.chunk_of[k % r.slots] = -1;
    r.given_back = k + 1;
    ::pthread_cond_signal(&r.wake);  // one buffer: one reader
    ::pthread_mutex_unlock(&r.mutex);
}

// The ring of the call: the batch's, or a fresh one held by `own`.
ring_state *ring_of(copy_ring *ring, copy_ring &own) noexcept {
    copy_ring &use = ring != nullptr ? *ring : own;
    if (use.state == nullptr) use.state = new (std::nothrow) ring_state;
    if (use.state != nullptr && use.state->slots == 0) (void)allocate_slots(*use.state);
    return use.state != nullptr && use.state->slots > 0 ? use.state : nullptr;
}

// One file's copy as the batch thread sees it.
struct file_copy {
    const reporter &report;
    TransferProgress &progress;
    const char *source;
    const char *target;
    ring_state &ring;
    int64_t size;
    int64_t threshold = 0;
    int64_t steps_done = 0;
    int64_t remaining = 0;
    rc code = rc::ok;
    base::unique_fd in{-1};
    base::unique_fd out{-1};
    bool direct_read = false;
    bool direct_write = false;
    bool cached_write = false;
    bool first_write = true;
    bool from_network = false;
    ssize_t prefetched = -1;  // bytes of chunk 0 the direct-read test brought in (-1: none)
    prefetch_record *ahead = nullptr;  // the file as a reader read it ahead
    char *first_data = nullptr;        // where chunk 0 is, when not in buffer 0
    bool announce = true;              // send the start event (a folder's first file only)
};

// Report points and the advance count (the file counts in full at once).
void plan_reports(file_copy &c) noexcept {
    TransferProgress &p = c.progress;
    c.threshold = report_threshold(p, c.size);
    c.steps_done = p.step > 0 ? p.item_done / p.step : 0;
    c.remaining = c.size;
    p.item_done += c.size;
    p.whole_done += c.size;
    c.from_network = std::strstr(c.source, "/NETWORK_SHARE/") != nullptr;
}

// Source, then target. Files of 1024 bytes and more ask for direct reads,
// targets off "SATA_" paths for direct writes.
void open_files(file_copy &c) noexcept {
    c.direct_read = c.size >= 1024;
    if (c.ahead != nullptr) {
        c.in.reset(c.ahead->fd);
        c.direct_read = c.ahead->direct;
    } else {
        c.in.reset(open_maybe_direct(c.source, source_flags, &c.direct_read));
    }
    if (!c.in.valid()) {
        c.code = rc::open_failed;
        return;
    }
    c.direct_write = std::strstr(c.target, "SATA_") == nullptr;
    c.out.reset(open_maybe_direct(c.target, target_flags, &c.direct_write));
    if (!c.out.valid()) c.code = rc::open_failed;
}

// The direct-read test. A file that fits one buffer is read whole by it
// (see whole_probe); a larger one reads its first block. Nothing read: a
// cached descriptor instead.
void test_direct_read(file_copy &c) noexcept {
    if (c.ahead != nullptr) {
        // Read ahead whole, the test included.
        if (c.direct_read) std::fputs("read  - Using DIRECT IO !!!\n", stderr);
        c.prefetched = c.ahead->got;
        c.first_data = c.ring.slot[c.ahead - c.ring.ahead + 1];
        return;
    }
    if (!c.direct_read) return;
    const std::size_t whole = whole_probe(c.size);
    const std::size_t length = whole <= c.ring.slot_size ? whole : copy_alignment;
    int error = 0;
    const ssize_t probe = base::retry_eintr([&] { return ::pread(c.in.get(), c.ring.slot[0], length, 0); });
    if (probe > 0) {
        std::fputs("read  - Using DIRECT IO !!!\n", stderr);
        if (length == whole) {
            // The whole file unless it grew: then read on.
            c.prefetched = probe;
            if (probe == static_cast<ssize_t>(length) || probe < c.size) {
                const ssize_t more = read_chunk(c.in.get(), c.ring.slot[0] + probe, c.ring.slot_size - probe, probe,
                                                c.size, &error);
                c.prefetched = more < 0 ? -1 : probe + more;
            }
        }
        return;
    }
    std::fputs("read  - Normal read !!!\n", stderr);
    c.direct_read = false;
    c.in.reset(::open(c.source, source_flags));
    if (!c.in.valid()) c.code = rc::reopen_failed;
}

void send_start(file_copy &c) noexcept {
    if (!c.announce) return;
    // The start event's percent is a fraction without the factor 100: it
    // reads 0.
    const TransferProgress &p = c.progress;
    const int32_t percent = p.item_total == 0 ? 0 : static_cast<int32_t>((p.item_done - c.size) / p.item_total);
    c.report.send(percent, c.size, rc::ok);
}

// Writes chunk k (got bytes); false with the code set when it failed.
bool write_chunk_of(file_copy &c, int64_t k, const char *data, ssize_t got) noexcept {
    const auto chunk = static_cast<ssize_t>(c.ring.slot_size);
    if (got < chunk && c.direct_write) {
        // Direct transfers need whole aligned blocks: the tail goes
        // through the cache.
        if (::fcntl(c.out.get(), F_SETFL, 0) != 0) {  // O_DIRECT off
            c.code = rc::write_failed;
            return false;
        }
        c.direct_write = false;
    }
    if (!c.direct_write) c.cached_write = true;
    const int64_t offset = k * static_cast<int64_t>(c.ring.slot_size);
    ssize_t put = base::pwrite_all(c.out.get(), data, static_cast<std::size_t>(got), offset);
    if (put < 1 && c.first_write && c.direct_write) {
        c.out.reset(::open(c.target, target_flags, 0777));
        c.direct_write = false;
        c.cached_write = true;
        put = c.out.valid() ? base::pwrite_all(c.out.get(), data, static_cast<std::size_t>(got), offset) : -1;
    }
    c.first_write = false;
    if (put >= 1) return true;
    std::fprintf(stderr, "write error=%d %d\n", errno, static_cast<int>(put));
    c.code = rc::write_failed;
    return false;
}

// A report is due once the bytes still unread fall below the threshold.
void report_progress(file_copy &c) noexcept {
    if (c.remaining >= c.threshold) return;
    const TransferProgress &p = c.progress;
    const int64_t percent = p.step == sixteen_mib ? (p.item_done - c.threshold) * 100 / p.item_total : c.steps_done + 1;
    c.steps_done = percent;
    c.report.send(static_cast<int32_t>(percent), c.threshold, rc::ok);
    c.threshold -= p.step;
}

// The chunks in order, read ahead by the ring's readers for files of more
// than one buffer, written here.
void copy_chunks(file_copy &c) noexcept {
    ring_state &r = c.ring;
    const auto chunk = static_cast<int64_t>(r.slot_size);
    const bool ahead = c.prefetched < 0 || c.prefetched == chunk;
    if (ahead && c.size > chunk) start_reading(r, c.in.get(), c.size, c.prefetched < 0 ? 0 : 1);
    for (int64_t k = 0; c.code == rc::ok; ++k) {
        int error = 0;
        ssize_t got;
        if (k == 0 && c.prefetched >= 0) {
            got = c.prefetched;
        } else {
            got = take_chunk(r, c.in.get(), c.size, k, &error);
        }
        if (got < 0) {
            // A read error is not the end of the file: the copy is
            // incomplete and a move must keep its source.
            c.code = rc::open_failed;
            break;
        }
        if (got < 1) break;
        c.remaining = c.remaining < chunk ? 0 : c.remaining - chunk;
        char *const data = k == 0 && c.first_data != nullptr ? c.first_data : r.slot[k % r.slots];
        if (c.from_network) flush_data_cache(data, got);
        const bool written = write_chunk_of(c, k, data, got);
        give_back(r, k);
        if (!written) break;
        report_progress(c);
        if (got < chunk) break;  // the end of the file
    }
    stop_reading(r);
}

// Closes both files; the source's pages read through the cache are dropped
// at once, the target's once written back.
void close_files(file_copy &c) noexcept {
    if (c.in.valid() && !c.direct_read) (void)::posix_fadvise(c.in.get(), 0, 0, POSIX_FADV_DONTNEED);
    c.in.reset();
    if (!c.out.valid()) return;
    if (c.cached_write && c.code == rc::ok) defer_cached_target(c.ring, c.out.get());
    if (!c.out.close_checked() && c.code == rc::ok) {
        std::fprintf(stderr, "write error=%d %d\n", errno, -1);
        c.code = rc::write_failed;
    }
}

}  // namespace

void release_ring_state(ring_state *state) noexcept {
    if (state == nullptr) return;
    ring_state &r = *state;
    ::pthread_mutex_lock(&r.mutex);
    r.quit = true;
    ::pthread_cond_broadcast(&r.wake);
    ::pthread_mutex_unlock(&r.mutex);
    for (int i = 0; i < r.readers; ++i) ::pthread_join(r.reader[i], nullptr);
    for (auto &f : r.ahead) free_record(f);
    while (r.cached_count > 0) drop_oldest_cached(r);
    for (int i = 0; i < r.slots; ++i) ::free(r.slot[i]);
    delete state;
}

const char *base_name(const char *path) noexcept {
    if (path == nullptr) return "";
    const char *slash = std::strrchr(path, '/');
    return slash == nullptr ? "" : slash + 1;
}

namespace {

rc copy_file(const char *source, const char *target, TransferProgress &progress, uint32_t operation,
             const char *from, const char *to, copy_ring *ring, bool announce) noexcept {
    const reporter report{progress, operation, base_name(source), from, to};
    const int64_t size = filesize64(source);
    ring_state *const shared = ring != nullptr ? ring->state : nullptr;
    prefetch_record *const ahead = shared != nullptr ? claim_prefetch(*shared, source, size) : nullptr;
    if (size == 0) {
        base::unique_fd empty(::open(target, target_flags, 0777));
        if (empty.valid() && empty.close_checked()) return rc::ok;
    }
    if (size <= 0 || !fits_destination(progress.permission_kind, size)) {
        if (ahead != nullptr) release_prefetch(*shared, *ahead, false);
        report.send_current(rc::io);
        return rc::io;
    }
    copy_ring own;
    ring_state *buffers = ring_of(ring, own);
    if (buffers == nullptr) {
        report.send_current(rc::io);
        return rc::io;
    }
    file_copy c{.report = report, .progress = progress, .source = source, .target = target, .ring = *buffers, .size = size};
    c.ahead = ahead;
    c.announce = announce;
    plan_reports(c);
    open_files(c);
    if (c.code == rc::ok) test_direct_read(c);
    if (c.code == rc::ok && c.direct_write) std::fputs("write - Using DIRECT IO !!!\n", stderr);
    if (c.code == rc::ok) send_start(c);
    if (c.code == rc::ok) copy_chunks(c);
    if (c.remaining == 0) report.send(percent_of(progress.item_done, progress.item_total), 0, rc::ok);
    close_files(c);
    if (c.ahead != nullptr) release_prefetch(*buffers, *c.ahead, true);
    if (c.code == rc::ok) return rc::ok;
    report.send(percent_of(progress.item_done - c.remaining, progress.item_total), c.remaining, c.code);
    return c.code;
}

struct folder_entry {
    std::string name;
    unsigned char d_type;  // as read: the listing order's folder test
    bool is_folder;        // followed through links: copied as a folder
};

// The entries of an open folder without "." and "..", folders first, then
// in natural name order. False when the folder cannot be read to its end.
bool list_folder(DIR *dir, std::vector<folder_entry> &entries) noexcept {
#if defined(__cpp_exceptions)
    try {
#endif
        bool failed = false;
        while (const dirent *e = base::next_entry(dir, &failed)) {
            bool is_folder = e->d_type == DT_DIR;
            if (e->d_type == DT_UNKNOWN || e->d_type == DT_LNK) {
                struct stat st{};
                is_folder = ::fstatat(::dirfd(dir), e->d_name, &st, 0) == 0 && S_ISDIR(st.st_mode);
            }
            entries.push_back({e->d_name, e->d_type, is_folder});
        }
        if (failed) return false;  // a folder that failed mid-read is not complete
        std::sort(entries.begin(), entries.end(), [](const folder_entry &a, const folder_entry &b) {
            base::sort_entry x, y;
            x.name = a.name.c_str();
            x.d_type = a.d_type;
            y.name = b.name.c_str();
            y.d_type = b.d_type;
            return base::compare_name_ascending(x, y) < 0;
        });
#if defined(__cpp_exceptions)
    } catch (...) {
        return false;
    }
#endif
    return true;
}

using walk_position = std::vector<folder_entry>::reverse_iterator;

// Asks the ring's readers to read the walk's next regular files ahead, from
// `next` up to the first folder, as far as buffers are free.
void read_files_ahead(copy_ring &ring, walk_position &next, walk_position end, const char *folder,
                      std::size_t folder_length) noexcept {
    ring_state *r = ring.state;
    if (r == nullptr) return;
    base::path_buffer path;
    for (; next != end && !next->is_folder; ++next) {
        if (next->d_type != DT_REG || folder_length + next->name.size() >= base::path_max) continue;
        std::memcpy(path, folder, folder_length);
        std::memcpy(path + folder_length, next->name.c_str(), next->name.size() + 1);
        if (!request_prefetch(*r, path)) return;
    }
}

// One tree's copy. The source and target buffers spell the entry being
// copied as text (for its events, the link check and its files); folders
// are opened and made relative to their parents' descriptors.
struct tree_copy {
    base::path_buffer &source;
    base::path_buffer &target;
    TransferProgress &progress;
    uint32_t operation;
    const char *from;
    const char *to;
    copy_ring &ring;
    bool quiet = false;  // files after a folder's first send no start event
};

// Appends "/" to a folder path of `length` characters unless it ends in one.
std::size_t with_slash(char *path, std::size_t length) noexcept {
    if (length == 0 || path[length - 1] != '/') path[length++] = '/', path[length] = '\0';
    return length;
}

// The folder `source_name` of `source_dir` into a new folder `target_name`
// of `target_dir`, `depth` levels below the tree's top.
rc copy_folder_at(tree_copy &t, int source_dir, const char *source_name, int target_dir, const char *target_name,
                  int depth) noexcept {
    const reporter report{t.progress, t.operation, base_name(t.source), t.from, t.to};
    std::size_t source_length = std::strlen(t.source);
    std::size_t target_length = std::strlen(t.target);
    if (depth > folder_depth_max || source_length >= base::path_max - 1 || target_length >= base::path_max - 1) {
        report.send_current(rc::bad_path);
        return rc::bad_path;
    }
    if (::mkdirat(target_dir, target_name, 0777) != 0) {
        report.send_current(rc::io);
        return rc::io;
    }
    t.progress.item_done += 4096;
    t.progress.whole_done += 4096;
    (void)::fchownat(target_dir, target_name, batch_owner, batch_owner, 0);
    const base::unique_fd into(::openat(target_dir, target_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const base::unique_dir dir = base::open_folder_at(source_dir, source_name);
    source_length = with_slash(t.source, source_length);
    target_length = with_slash(t.target, target_length);
    std::vector<folder_entry> entries;
    if (!into.valid() || dir == nullptr || !list_folder(dir.get(), entries)) {
        std::fprintf(stderr, "source[%s] no contents\n", t.source);
        // Not all was copied: a move must not remove this source.
        t.quiet = false;
        report.send_current(rc::open_failed);
        return rc::open_failed;
    }
    if (ring_state *r = ring_of(&t.ring, t.ring)) start_readers(*r);
    walk_position ahead = entries.rbegin();
    rc result = rc::ok;
    for (auto e = entries.rbegin(); e != entries.rend() && result == rc::ok; ++e) {
        if (ahead < e) ahead = e;
        read_files_ahead(t.ring, ahead, entries.rend(), t.source, source_length);
        const char *name = e->name.c_str();
        const std::size_t name_length = e->name.size();
        if (source_length + name_length >= base::path_max || target_length + name_length >= base::path_max) {
            // Too long a path to copy: the folder is not complete, so a move keeps its source.
            report.send_current(rc::bad_path);
            result = rc::bad_path;
            continue;
        }
        std::memcpy(t.source + source_length, name, name_length + 1);
        if ((e->d_type == DT_LNK || e->d_type == DT_UNKNOWN) && storage::link_leads_out(t.source)) {
            t.source[source_length] = '\0';  // a link leading out of the drives root is not followed
            continue;
        }
        std::memcpy(t.target + target_length, name, name_length + 1);
        result = e->is_folder ? copy_folder_at(t, ::dirfd(dir.get()), name, into.get(), name, depth + 1)
                              : copy_file(t.source, t.target, t.progress, t.operation, t.from, t.to, &t.ring,
                                          !t.quiet);
        (void)::fchownat(into.get(), name, batch_owner, batch_owner, AT_SYMLINK_NOFOLLOW);
        t.source[source_length] = '\0';
        t.target[target_length] = '\0';
        t.quiet = true;
    }
    if (t.ring.state != nullptr) cancel_prefetches(*t.ring.state);  // files a failure left unread
    t.quiet = false;
    return result;
}

}  // namespace

base::rc copy_file_with_progress(const char *source, const char *target, TransferProgress &progress,
                                uint32_t operation, const char *from, const char *to, copy_ring *ring) noexcept {
    return copy_file(source, target, progress, operation, from, to, ring, true);
}

base::rc copy_folder_with_progress(base::path_buffer &source, base::path_buffer &target,
                                  TransferProgress &progress, uint32_t operation, const char *from,
                                  const char *to, copy_ring *ring) noexcept {
    copy_ring own;  // every file of the tree shares one ring
    tree_copy t{source, target, progress, operation, from, to, ring != nullptr ? *ring : own};
    return copy_folder_at(t, AT_FDCWD, source, AT_FDCWD, target, 0);
}

base::rc move_by_rename(const char *source, const char *target, TransferProgress &progress, const char *from,
                       const char *to) noexcept {
    const reporter report{progress, op_move, base_name(source), from, to};
    if (isfileexist(source) == 0) {
        report.send(0, 0, rc::missing_source);
        return rc::missing_source;
    }
    report.send(0, 0, rc::ok);
    const char *argv[] = {"mv", "--", source, target, nullptr};
    base::spawn_options quiet;
    quiet.quiet_stderr = true;
    if (base::run_program(argv, quiet) != 0) {
        report.send(0, 0, rc::io);
        return rc::io;
    }
    progress.item_done = progress.item_total;
    progress.whole_done += progress.item_total;
    report.send(100, 0, rc::ok);
    return rc::ok;
}

bool make_target_path(std::span<char> out, char *folder, const char *name, bool unique) noexcept {
    std::size_t length = std::strlen(folder);
    if (length > 0 && folder[length - 1] == '/') folder[length - 1] = '\0';
    const char *separator = name[0] == '/' ? "" : "/";
    if (!base::format_into(out, "%s%s%s", folder, separator, name)) return false;
    if (!unique || isfileexist(out.data()) == 0) return true;
    const char *bare = name[0] == '/' ? name + 1 : name;
    for (int counter = 1; counter > 0; ++counter) {
        if (!base::format_into(out, "%s/copy_%d_of_%s", folder, counter, bare)) return false;
        if (isfileexist(out.data()) == 0) return true;
    }
    return false;
}

}  // namespace transfer
