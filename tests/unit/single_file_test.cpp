// The single-file commands' arithmetic and vocabularies: the read span with
// unsigned 32-bit client counts, the owner permission text and the errno
// table of folder creation and rename.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "storage/file_commands.h"
#include "storage/manage_commands.h"

namespace {

// Bytes a read returns for a file of `size` bytes: the span's read length,
// clipped by what lies after the offset.
uint64_t bytes_returned(uint32_t offset, uint32_t count, uint64_t size) {
    storage::read_span s = storage::plan_read(offset, count, size + 1);
    EXPECT_GE(s.buffer_size, 1u);
    EXPECT_EQ(s.offset, offset);
    uint64_t readable = offset < size ? size - offset : 0;
    uint64_t wanted = s.buffer_size - 1;
    // The buffer never asks for more than the file can deliver.
    EXPECT_LE(wanted, readable) << offset << " " << count << " " << size;
    return wanted < readable ? wanted : readable;
}

TEST(ReadSpan, Ranges) {
    struct row {
        uint32_t offset, count;
        uint64_t size, expected;
    };
    const row rows[] = {
        {0, 0, 10, 10},                  // whole file
        {0, 0, 0, 0},                    // empty file
        {2, 3, 10, 3},                   // inside
        {0, 10, 10, 10},                 // exactly the file
        {0, 9, 10, 9},
        {7, 0, 10, 3},                   // to the end
        {7, 100, 10, 3},                 // runs past the end
        {9, 1, 10, 1},                   // last byte
        {10, 0, 10, 0},                  // at the end
        {10, 5, 10, 0},
        {11, 5, 10, 0},                  // past the end
        {4000000000u, 0, 10, 0},
        // Counts that wrap a 32-bit sum: "-1" from atoi is 4294967295.
        {1, UINT32_MAX, 10, 9},
        {UINT32_MAX, 2, 10, 0},
        {UINT32_MAX, UINT32_MAX, 10, 0},
        {3, 0xFFFFFFFEu, 10, 7},
        // Files beyond 4 GiB keep their real size.
        {0, 16, 5000000000ull, 16},
        {4294967295u, 0, 5000000000ull, 5000000000ull - 4294967295u},
    };
    for (const row &r : rows)
        EXPECT_EQ(bytes_returned(r.offset, r.count, r.size), r.expected)
            << "offset " << r.offset << " count " << r.count << " size " << r.size;
}

TEST(PermissionText, OwnerBitsOnlyInFixedOrder) {
    struct row {
        unsigned mode;
        const char *text;
    };
    const row rows[] = {
        {0, ""},
        {S_IFREG | 0077, ""},  // group and others never count
        {S_IFREG | 0400, " read"},
        {S_IFREG | 0600, " read write"},
        {S_IFREG | 0700, " read write execute"},
        {S_IFDIR | 0500, " read execute"},
        {0200, " write"},
        {0100, " execute"},
        {S_IFREG | 04777, " read write execute"},
    };
    for (const row &r : rows) {
        char out[32];
        std::memset(out, 'Z', sizeof out);
        storage::owner_permission_text(r.mode, out);
        EXPECT_STREQ(out, r.text) << std::oct << r.mode;
    }
}

TEST(ErrnoResults, TableAndFallback) {
    struct row {
        int error;
        int32_t result;
    };
    const row rows[] = {
        {EACCES, 402}, {EROFS, 60},   {EBUSY, 2},   {ETXTBSY, 2}, {EEXIST, 52},
        {ENOSPC, 22},  {EPERM, 4},    {ENOENT, 4},  {EXDEV, 4},   {ENOTEMPTY, 4},
        {EISDIR, 4},   {ENAMETOOLONG, 4}, {0, 4},
    };
    for (const row &r : rows) EXPECT_EQ(storage::result_for_errno(r.error), r.result) << r.error;
}

}  // namespace
