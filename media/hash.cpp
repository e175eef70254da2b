#include "media/hash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "base/answer.h"
#include "base/export.h"
#include "base/owners.h"
#include "base/result.h"
#include "storage/paths.h"

namespace media {
namespace {

constexpr std::size_t block_bytes = 65536;  // head and tail: 8192 words of 8 bytes
constexpr std::size_t chunk_bytes = 8192;   // read in steps that keep the stack small

uint64_t load_le64(const unsigned char *p) noexcept {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);  // the tail may start at any byte
    if constexpr (std::endian::native == std::endian::big) v = __builtin_bswap64(v);
    return v;
}

// Adds up to 8192 whole words from the stream's position. A trailing part of
// fewer than 8 bytes is consumed but not counted, as when reading word by
// word stops at the first word that cannot be read whole.
uint64_t sum_block(FILE *stream) noexcept {
    unsigned char chunk[chunk_bytes];
    uint64_t sum = 0;
    for (std::size_t done = 0; done < block_bytes; done += chunk_bytes) {
        std::size_t n = std::fread(chunk, 1, sizeof chunk, stream);
        for (std::size_t i = 0; i + 8 <= n; i += 8) sum += load_le64(chunk + i);
        if (n < sizeof chunk) break;  // end of file or error: fread reads all it can
    }
    return sum;
}

struct file_closer {
    void operator()(FILE *f) const noexcept { std::fclose(f); }
};

}  // namespace

int64_t hash_tail_offset(uint64_t size) noexcept {
    // The tail is found with a seek that takes a signed 32-bit offset: the low
    // 32 bits of the size less 65536. A negative offset makes the seek fail and
    // the stream stays where the head ended; from 4 GiB on the offset wraps.
    auto offset = static_cast<int32_t>(static_cast<uint32_t>(size) - static_cast<uint32_t>(block_bytes));
    return offset < 0 ? -1 : offset;
}

namespace {

uint64_t hash_file(const char *path) noexcept {
    // Non-blocking so that a FIFO without a writer cannot hold the request;
    // regular files ignore the flag.
    int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    FILE *raw = fd >= 0 ? ::fdopen(fd, "rb") : nullptr;
    if (raw == nullptr) {
        int error = errno;
        if (fd >= 0) ::close(fd);
        errno = error;
        std::perror("file :");
        return 0;
    }
    std::unique_ptr<FILE, file_closer> stream(raw);
    uint64_t size = 0;
    if (::fseeko(raw, 0, SEEK_END) == 0) {
        off_t end = ::ftello(raw);
        if (end > 0) size = static_cast<uint64_t>(end);
    }
    std::rewind(raw);

    uint64_t hash = size;
    hash += sum_block(raw);
    if (int64_t tail = hash_tail_offset(size); tail >= 0) ::fseeko(raw, static_cast<off_t>(tail), SEEK_SET);
    hash += sum_block(raw);
    return hash;
}

}  // namespace

base::rc calculate_user_storage_file_hash(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    base::unique_malloc<char> resolved;
    const char *path = storage::resolve_first_argument(request, resolved);
    if (path == nullptr) return base::rc::bad_argument;
    bool folder = is_path_folder(path) == 1;
    if (::access(path, F_OK) != 0) return base::rc::bad_path;

    char text[32] = "0";
    if (!folder) {
        unsigned long long hash = hash_file(path);
        std::snprintf(text, sizeof text, "%llx", hash);
    }
    base::add_element(base::response_of(response_slot), "hash", text);
    return base::rc::ok;
}

}  // namespace media

extern "C" {

FILEOP_EXPORT uint64_t compute_hash_for_file(const char *path) noexcept {
    FILEOP_GUARD_BEGIN
    if (path == nullptr) return 0;
    return media::hash_file(path);
    FILEOP_GUARD_END(0)
}

FILEOP_EXPORT int is_path_folder(const char *path) noexcept {
    struct stat st;
    return path != nullptr && ::stat(path, &st) == 0 && S_ISDIR(st.st_mode) ? 1 : 0;
}

}  // extern "C"
