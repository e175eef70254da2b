// Path translation, the read span, permission text, errno results, the MIME lookup and the reserved area's quota.
#include <cerrno>

#include "base/text.h"
#include "storage/file_commands.h"
#include "storage/manage_commands.h"
#include "storage/mime.h"
#include "storage/paths.h"
#include "test_util.h"

namespace {

std::string translate(const std::string &in, int32_t *kind) {
    base::path_buffer b;
    std::memset(b, 'Z', sizeof b);
    std::memcpy(b, in.c_str(), in.size() + 1);
    *kind = storage::translate_storage_path(b);
    return b;
}

TEST(TranslateStoragePath, FormsAndLimits) {
    const std::string root = "/opt/vtrhttpd/localhost.drives";
    struct row { std::string in, out; };
    for (const row &r : {row{"USB_DRIVE/a.txt", root + "/USB_DRIVE/a.txt"}, {"/USB_DRIVE/a", root + "/USB_DRIVE/a"},
                         {"", root + "/"}, {"SMB://host/x", root + "/SMB://host/x"}, {root + "/A/b", root + "/A/b"},
                         {root + "X/b", root + "X/b"},  // prefix comparison only
                         {root + "/A/100%%_%s%n%x", root + "/A/100%_%s%n%x"},  // "%%" becomes "%", nothing else
                         {"A/%s%%", root + "/A/%s%%"}}) {  // relative paths are taken literally
        int32_t kind = 0;
        EXPECT_EQ(translate(r.in, &kind), r.out) << r.in;
        EXPECT_EQ(kind, 2) << r.in;
    }
    int32_t kind = 0;
    std::string near(4095 - 30, 'a');  // becomes root + "/" + 4065 = 4096 characters: too long
    EXPECT_EQ(translate(near, &kind), near);
    EXPECT_EQ(kind, -1);
    EXPECT_EQ(translate(std::string(4095 - 31, 'a'), &kind).size(), 4095u);
    EXPECT_EQ(kind, 2);
    base::path_buffer b;
    EXPECT_EQ(storage::load_and_translate(b, std::string(4096, 'x').c_str()), -1);
    EXPECT_EQ(storage::load_and_translate(b, nullptr), -1);
    EXPECT_TRUE(base::format_into(b, "%s", ""));  // an empty text fits
}

// Bytes a read returns for a file of `size` bytes; the buffer never asks for more than lies after the offset.
uint64_t bytes_returned(uint32_t offset, uint32_t count, uint64_t size) {
    storage::read_span s = storage::plan_read(offset, count, size + 1);
    EXPECT_EQ(s.offset, offset);
    uint64_t readable = offset < size ? size - offset : 0, wanted = s.buffer_size - 1;
    EXPECT_LE(wanted, readable) << offset << " " << count << " " << size;
    return std::min(wanted, readable);
}

TEST(ReadSpan, Ranges) {
    struct row { uint32_t offset, count; uint64_t size, expected; };
    const row rows[] = {
        {0, 0, 10, 10}, {0, 0, 0, 0}, {2, 3, 10, 3}, {0, 10, 10, 10}, {0, 9, 10, 9}, {7, 0, 10, 3}, {7, 100, 10, 3},
        {9, 1, 10, 1}, {10, 0, 10, 0}, {10, 5, 10, 0}, {11, 5, 10, 0}, {4000000000u, 0, 10, 0},
        // counts that wrap a 32-bit sum: "-1" from atoi is 4294967295
        {1, UINT32_MAX, 10, 9}, {UINT32_MAX, 2, 10, 0}, {UINT32_MAX, UINT32_MAX, 10, 0}, {3, 0xFFFFFFFEu, 10, 7},
        {0, 16, 5000000000ull, 16}, {4294967295u, 0, 5000000000ull, 5000000000ull - 4294967295u},  // beyond 4 GiB
    };
    for (const row &r : rows)
        EXPECT_EQ(bytes_returned(r.offset, r.count, r.size), r.expected) << r.offset << " " << r.count << " " << r.size;
}

TEST(StorageTables, PermissionTextAndErrnoResults) {
    struct perm { unsigned mode; const char *text; };
    for (perm r : {perm{0, ""}, {S_IFREG | 0077, ""}, {S_IFREG | 0400, " read"}, {S_IFREG | 0600, " read write"},
                   {S_IFDIR | 0500, " read execute"}, {0200, " write"}, {0100, " execute"}, {S_IFREG | 04777, " read write execute"}}) {
        char out[32] = "ZZZZ";
        storage::owner_permission_text(r.mode, out);
        EXPECT_STREQ(out, r.text) << std::oct << r.mode;
    }
    struct code { int error; int32_t result; };
    for (code r : {code{EACCES, 402}, {EROFS, 60}, {EBUSY, 2}, {ETXTBSY, 2}, {EEXIST, 52}, {ENOSPC, 22}, {EPERM, 4},
                   {ENOENT, 4}, {EXDEV, 4}, {ENOTEMPTY, 4}, {EISDIR, 4}, {0, 4}})
        EXPECT_EQ(storage::result_for_errno(r.error), r.result) << r.error;
}

TEST(Mime, SortedStableTableAndLookup) {
    storage::sort_mime_table();
    for (int i = 0; i < mime_table_size; ++i) {  // every row found; with duplicates the first row met wins
        const mime_entry &e = file_mime_table[i];
        if (std::strcmp(e.type, "video/mpe") == 0) continue;
        EXPECT_STREQ(storage::mime_type_for_path((std::string("file") + e.extension).c_str()), e.type) << e.extension;
    }
    struct row { const char *path, *type; };
    for (row r : {row{"A.MP3", "audio/mpeg"}, {"x.JPE", "image/jpeg"}, {"noext", "none"}, {"trailing.", "none"},
                  {"music.old/track", "none"}, {".mp3", "audio/mpeg"}, {"movie.mp4.part", "none"}, {"a.mpe", "video/mpeg"},
                  {"x.dvr-ms", "video/dvr-ms"}, {"/a.b/c.mkv", "video/mkv"}, {"", "none"}})
        EXPECT_STREQ(storage::mime_type_for_path(r.path), r.type) << r.path;
    EXPECT_EQ(storage::mime_type_for_path("x.unknown"), storage::mime_none);
}

// The reserved area's 20 MiB quota on the real drives root: exact up to the quota left.
TEST(ReservedQuota, FitsExactlyUpToTheQuotaLeft) {
    REQUIRE_SANDBOX();
    const std::string reserved = tu::drives_root + "/.reserved", sibling = reserved + "X";  // shares the quota
    tu::drive_tree area(reserved), other(sibling);
    area.file("part", std::string(19u << 20, 'r'));
    FILE *du = ::popen(("du -sL " + reserved).c_str(), "r");
    long long kib = 0;
    ASSERT_EQ(std::fscanf(du, "%lld", &kib), 1);
    ::pclose(du);
    const auto left = static_cast<uint32_t>(storage::reserved_quota - kib * 1024);
    ASSERT_LT(left, 2u << 20);
    struct row { uint32_t size; std::string path; int expected; };
    for (const row &r : {row{left, reserved + "/app/file", 0}, {left + 1, reserved + "/app/file", 1}, {0, reserved, 0},
                         {left + 1, sibling + "/f", 1}, {left + 1, tu::drives_root, 0}})  // elsewhere: the partition
        EXPECT_EQ(storage::check_free_space(r.size, r.path.c_str()), r.expected) << r.size << " " << r.path;
    area.file("all", std::string(2u << 20, 'r'));  // a full area refuses even one byte
    EXPECT_EQ(storage::check_free_space(1, (reserved + "/x").c_str()), 1);
    EXPECT_EQ(storage::check_free_space(0, (reserved + "/x").c_str()), 0);
    EXPECT_EQ(storage::check_free_space(1, nullptr), 1);
}

}  // namespace
