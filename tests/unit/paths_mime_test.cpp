// Path translation, the "%" rule, over-long paths and the MIME lookup's
// tricky keys.
#include <gtest/gtest.h>

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "storage/mime.h"
#include "storage/paths.h"

namespace {

std::string translate(const std::string &in, int32_t *kind) {
    plugin::path_buffer b;
    std::memset(b, 'Z', sizeof b);
    std::memcpy(b, in.c_str(), in.size() + 1);
    *kind = storage::translate_storage_path(b);
    return b;
}

TEST(TranslateStoragePath, LocalForms) {
    struct row { const char *in; const char *out; };
    const row rows[] = {
        {"USB_DRIVE/a.txt", "/opt/vtrhttpd/localhost.drives/USB_DRIVE/a.txt"},
        {"/USB_DRIVE/a.txt", "/opt/vtrhttpd/localhost.drives/USB_DRIVE/a.txt"},
        {"", "/opt/vtrhttpd/localhost.drives/"},
        {"SMB://host/x", "/opt/vtrhttpd/localhost.drives/SMB://host/x"},
        {"/opt/vtrhttpd/localhost.drives/A/b", "/opt/vtrhttpd/localhost.drives/A/b"},
        // prefix comparison only
        {"/opt/vtrhttpd/localhost.drivesX/b", "/opt/vtrhttpd/localhost.drivesX/b"},
        // a doubled percent sign becomes one, nothing else is interpreted
        {"/opt/vtrhttpd/localhost.drives/A/100%%_%s%n%x", "/opt/vtrhttpd/localhost.drives/A/100%_%s%n%x"},
        // relative paths are taken literally
        {"A/%s%%", "/opt/vtrhttpd/localhost.drives/A/%s%%"},
    };
    for (const row &r : rows) {
        int32_t kind = 0;
        EXPECT_EQ(translate(r.in, &kind), r.out) << r.in;
        EXPECT_EQ(kind, 2) << r.in;
        // translating twice is harmless (but for "%%")
        if (!std::strstr(r.in, "%%")) {
            EXPECT_EQ(translate(r.out, &kind), r.out);
        }
    }
}

TEST(TranslateStoragePath, OverLongPathsFailAndLeaveTheBufferAlone) {
    std::string near(4095 - 30, 'a');  // becomes root + "/" + 4065 = 4096 characters: too long
    int32_t kind = 0;
    std::string out = translate(near, &kind);
    EXPECT_EQ(kind, -1);
    EXPECT_EQ(out, near);
    std::string fits(4095 - 31, 'a');
    out = translate(fits, &kind);
    EXPECT_EQ(kind, 2);
    EXPECT_EQ(out.size(), 4095u);

    plugin::path_buffer b;
    std::string too_long(4096, 'x');
    EXPECT_EQ(storage::load_and_translate(b, too_long.c_str()), -1);
    EXPECT_EQ(storage::load_and_translate(b, nullptr), -1);
}

TEST(CheckFreeSpace, NullPathNeverFits) { EXPECT_EQ(storage::check_free_space(0, nullptr), 1); }

TEST(MimeTable, SortedCaseInsensitivelyAndStable) {
    storage::sort_mime_table();
    for (int i = 1; i < mime_table_size; ++i)
        EXPECT_LE(::strcasecmp(file_mime_table[i - 1].extension, file_mime_table[i].extension), 0) << i;
    // The two ".mpe" rows keep their stored order.
    const MimeEntry *begin = file_mime_table, *end = begin + mime_table_size;
    const MimeEntry *mpe =
        std::find_if(begin, end, [](const MimeEntry &e) { return std::strcmp(e.extension, ".mpe") == 0; });
    ASSERT_LT(mpe + 1, end);
    EXPECT_STREQ(mpe[0].type, "video/mpeg");
    EXPECT_STREQ(mpe[1].type, "video/mpe");
}

TEST(MimeLookup, TrickyKeys) {
    struct row { const char *path; const char *type; };
    const row rows[] = {
        {"A.MP3", "audio/mpeg"}, {"a.mp3", "audio/mpeg"}, {"x.JPE", "image/jpeg"},
        {"noext", "none"}, {"trailing.", "none"}, {"music.old/track", "none"},
        {".mp3", "audio/mpeg"}, {"movie.mp4.part", "none"}, {"a.m2ts", "video/m2ts"},
        {"a.ts", "video/mpeg"}, {"a.mpe", "video/mpeg"}, {"Photos.jpg", "image/jpeg"},
        {"x.dvr-ms", "video/dvr-ms"}, {"x.torrent", "torrent"}, {"x.swf", "application/x-shockwave-flash"},
        {"/a.b/c.mkv", "video/mkv"}, {"", "none"},
    };
    storage::sort_mime_table();
    for (const row &r : rows) EXPECT_STREQ(storage::mime_type_for_path(r.path), r.type) << r.path;
    EXPECT_EQ(storage::mime_type_for_path("x.unknown"), storage::mime_none);
}

TEST(MimeLookup, EveryExtensionFindsItsOwnRow) {
    storage::sort_mime_table();
    for (int i = 0; i < mime_table_size; ++i) {
        const MimeEntry &e = file_mime_table[i];
        // With duplicates the first row met by the search wins.
        if (std::strcmp(e.extension, ".mpe") == 0 && std::strcmp(e.type, "video/mpe") == 0) continue;
        std::string name = std::string("file") + e.extension;
        EXPECT_STREQ(storage::mime_type_for_path(name.c_str()), e.type) << name;
    }
}

}  // namespace
