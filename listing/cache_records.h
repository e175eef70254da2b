// The listing key and the records of the listing cache file, shared by
// every lister.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/host_api.h"

namespace listing {

inline constexpr const char *cache_file = "/tmp/usr_file_list";
inline constexpr long cache_limit = 50001;  // a miss deletes a cache of this size or more

// ---- records (little-endian on the player and on development hosts) -----

#pragma pack(push, 1)
// Identifies one page of one listing; the first 300 bytes of a cache record.
struct listing_key {
    uint32_t offset;         // low 32 bits
    uint32_t range;          // low 32 bits
    uint8_t want_folders;
    uint8_t want_files;
    uint8_t sort_order;
    char filter_word[32];    // NUL-terminated
    char path[257];          // NUL-terminated, at most 256 characters
};

struct cache_header {
    listing_key key;
    int32_t available_files;
    int32_t available_folders;
    int32_t entry_count;
    char convert_path[256];
};

struct cache_entry {
    int32_t mtime;           // seconds since the epoch
    uint32_t reserved;       // written as 0, never read
    uint64_t size;
    char type_word[16];      // "" for folders ("cd" for folders while the disc drive was opened)
    uint8_t is_folder;
    char name[127];          // at most 126 characters
    char path[512];          // at most 511 characters
};
#pragma pack(pop)

static_assert(sizeof(listing_key) == 300);
static_assert(offsetof(listing_key, range) == 4 && offsetof(listing_key, want_folders) == 8 &&
              offsetof(listing_key, want_files) == 9 && offsetof(listing_key, sort_order) == 10 &&
              offsetof(listing_key, filter_word) == 11 && offsetof(listing_key, path) == 43);
static_assert(sizeof(cache_header) == 568);
static_assert(offsetof(cache_header, available_files) == 300 && offsetof(cache_header, available_folders) == 304 &&
              offsetof(cache_header, entry_count) == 308 && offsetof(cache_header, convert_path) == 312);
static_assert(sizeof(cache_entry) == 672);
static_assert(offsetof(cache_entry, size) == 8 && offsetof(cache_entry, type_word) == 16 &&
              offsetof(cache_entry, is_folder) == 32 && offsetof(cache_entry, name) == 33 &&
              offsetof(cache_entry, path) == 160);
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the cache records are little-endian");

// Fields of a listing key; texts longer than their slots are cut.
listing_key make_listing_key(int64_t offset, int64_t range, bool want_folders, bool want_files, int sort_order,
                             const char *filter_word, const char *path) noexcept;

// A cache entry with its texts cut to their slots.
cache_entry make_cache_entry(const char *name, const char *path, const char *type_word, bool is_folder,
                             uint64_t size, int32_t mtime) noexcept;

// The entries of one page, in listing order, kept until the record is written.
using cache_page = std::vector<cache_entry>;

// Appends one record (key, counts, convertPath, entries) to the cache file,
// created with mode 0600; silent when the file cannot be opened. Written
// with one write so that records of parallel listings never interleave.
void append_cache_record(const listing_key &key, int32_t available_files, int32_t available_folders,
                         const char *convert_path, std::span<const cache_entry> entries,
                         const char *file = cache_file) noexcept;

}  // namespace listing
