#include "listing/cache_records.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "base/io.h"
#include "base/owners.h"

namespace listing {
namespace {

template <std::size_t N>
void cut_into(char (&slot)[N], const char *text) noexcept {
    std::memset(slot, 0, N);
    if (text != nullptr) std::memcpy(slot, text, ::strnlen(text, N - 1));
}

}  // namespace

listing_key make_listing_key(int64_t offset, int64_t range, bool want_folders, bool want_files, int sort_order,
                             const char *filter_word, const char *path) noexcept {
    listing_key key;
    std::memset(&key, 0, sizeof key);
    key.offset = static_cast<uint32_t>(static_cast<uint64_t>(offset));
    key.range = static_cast<uint32_t>(static_cast<uint64_t>(range));
    key.want_folders = want_folders ? 1 : 0;
    key.want_files = want_files ? 1 : 0;
    key.sort_order = static_cast<uint8_t>(sort_order);
    cut_into(key.filter_word, filter_word);
    cut_into(key.path, path);
    return key;
}

cache_entry make_cache_entry(const char *name, const char *path, const char *type_word, bool is_folder,
                             uint64_t size, int32_t mtime) noexcept {
    cache_entry e;
    std::memset(&e, 0, sizeof e);
    e.mtime = mtime;
    e.size = size;
    cut_into(e.type_word, type_word);
    e.is_folder = is_folder ? 1 : 0;
    cut_into(e.name, name);
    cut_into(e.path, path);
    return e;
}

void append_cache_record(const listing_key &key, int32_t available_files, int32_t available_folders,
                         const char *convert_path, std::span<const cache_entry> entries,
                         const char *file) noexcept {
    if (entries.size() > static_cast<std::size_t>(INT32_MAX / sizeof(cache_entry))) return;
    cache_header header;
    std::memset(&header, 0, sizeof header);
    std::memcpy(&header.key, &key, sizeof key);
    header.available_files = available_files;
    header.available_folders = available_folders;
    header.entry_count = static_cast<int32_t>(entries.size());
    cut_into(header.convert_path, convert_path);

    std::size_t total = sizeof header + entries.size_bytes();
    std::unique_ptr<unsigned char[]> record(new (std::nothrow) unsigned char[total]);
    base::unique_fd fd(::open(file, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.valid()) return;
    if (record != nullptr) {
        std::memcpy(record.get(), &header, sizeof header);
        if (!entries.empty()) std::memcpy(record.get() + sizeof header, entries.data(), entries.size_bytes());
        base::write_all(fd.get(), record.get(), total);
    } else {
        // No room for one buffer: header and entries in turn.
        if (base::write_all(fd.get(), &header, sizeof header))
            base::write_all(fd.get(), entries.data(), entries.size_bytes());
    }
    if (!fd.close_checked()) std::perror("usr_file_list");
}

}  // namespace listing
