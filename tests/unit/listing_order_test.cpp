// The natural name order against the C library's version comparison, the comparators, the sort selection, filters.
#include <string.h>

#include <random>

#include "test_util.h"

#include "listing/filters.h"
#include "listing/sort_orders.h"
#include "listing/type_words.h"
#include "storage/mime.h"

namespace {

using listing::sort_entry;
using listing::sort_kind;

std::string lowered(std::string s) {
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// Letters, separators (":" follows "9") and digit runs with and without leading zeros: the version order's states.
std::string random_name(std::mt19937 &rng) {
    std::string s;
    for (int p = static_cast<int>(rng() % 5); p >= 0; --p)
        for (int i = 0, k = static_cast<int>(rng() % 3), n = 1 + static_cast<int>(rng() % 4); i < n; ++i)
            s += k == 0 ? "aAbBzZ._-:"[rng() % 10] : (k == 2 && i == 0) ? '0' : static_cast<char>('0' + rng() % 10);
    return s;
}

TEST(NaturalOrder, MatchesStrverscmpOfLowerCasedNames) {
    std::mt19937 rng(20261122);
    for (int i = 0; i < 200000; ++i) {
        std::string a = random_name(rng);
        std::string b = (i % 4 == 0) ? a.substr(0, a.size() / 2) + random_name(rng) : random_name(rng);
        int expected = ::strverscmp(lowered(a).c_str(), lowered(b).c_str());
        int got = listing::natural_compare(a.c_str(), b.c_str());
        ASSERT_EQ((expected > 0) - (expected < 0), (got > 0) - (got < 0)) << '"' << a << "\" vs \"" << b << '"';
    }
}

sort_entry folder(const char *name, int32_t mtime) { return {name, "", 0, mtime, 4}; }
sort_entry file(const char *name, int64_t size = 0, int32_t mtime = 0) { return {name, "", size, mtime, 8}; }

std::string sorted_names(std::vector<sort_entry> entries, sort_kind kind) {
    std::vector<sort_entry *> order;
    for (sort_entry &e : entries) order.push_back(&e);
    listing::sort_entries(order, kind);
    std::string names;
    for (sort_entry *e : order) names += std::string(e->name) + " ";
    return names;
}

TEST(Comparators, EachOrder) {
    std::vector<sort_entry> entries{
        file("b10.mkv", 300, 50), folder("Z", 10), file("B9.mkv", 300, 60), folder("a2", 30),
        file("c.mkv", 100, 50),   folder("a10", 20), {"blockdev", "", 0, 5, 6},  // block devices sort as folders
    };
    // Folders first, by their times too; equal times by name.
    const std::pair<sort_kind, const char *> rows[] = {
        {sort_kind::name_ascending, "a2 a10 blockdev Z B9.mkv b10.mkv c.mkv "},
        {sort_kind::name_descending, "Z blockdev a10 a2 c.mkv b10.mkv B9.mkv "},
        {sort_kind::size_ascending, "a2 a10 blockdev Z c.mkv B9.mkv b10.mkv "},
        {sort_kind::size_descending, "Z blockdev a10 a2 b10.mkv B9.mkv c.mkv "},
        {sort_kind::date_ascending, "blockdev Z a10 a2 b10.mkv c.mkv B9.mkv "},
        {sort_kind::date_descending, "a2 a10 Z blockdev B9.mkv c.mkv b10.mkv "}};
    for (auto [kind, want] : rows) EXPECT_EQ(sorted_names(entries, kind), want) << static_cast<int>(kind);
}

TEST(Comparators, DriveLabelsAndStableTies) {
    std::vector<sort_entry> drives{
        {"USB_DRIVE_B", "Stick 10", 0, 0, 4}, {"USB_DRIVE_A", "stick 9", 0, 0, 4},
        {"SATA_DISK", "Unknown", 0, 0, 4},    {"CDROM", "", 0, 0, 4},
    };
    EXPECT_EQ(sorted_names(drives, sort_kind::drive_name_ascending), "CDROM USB_DRIVE_A USB_DRIVE_B SATA_DISK ");
    EXPECT_EQ(sorted_names(drives, sort_kind::drive_name_descending), "SATA_DISK USB_DRIVE_B USB_DRIVE_A CDROM ");
    // Names equal but for case keep their reading order, in both directions.
    EXPECT_EQ(sorted_names({file("x"), file("X"), file("x2")}, sort_kind::name_ascending), "x X x2 ");
    EXPECT_EQ(sorted_names({file("x"), file("X"), file("x2")}, sort_kind::name_descending), "x2 x X ");
    std::vector<sort_entry> ten;  // more than one insertion run of 8: merged
    for (const char *n : {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"}) ten.push_back(file(n));
    EXPECT_EQ(sorted_names(ten, sort_kind::name_ascending), "a b c d e f g h i j ");
}

TEST(SelectionTable, Rows) {
    using k = sort_kind;
    struct row { int order; bool top; const char *filter; bool keyword; sort_kind want; };
    const row rows[] = {
        {0, false, "", false, k::name_ascending}, {7, false, "", false, k::name_ascending},
        {-1, true, "local", false, k::drive_name_ascending}, {0, true, "local", false, k::drive_name_ascending},
        {0, true, "LOCAL", false, k::name_ascending}, {0, false, "local", false, k::name_ascending},
        {1, true, "local", false, k::drive_name_descending}, {1, true, "network", false, k::name_descending},
        {2, true, "local", false, k::size_ascending}, {3, false, "", false, k::size_descending},
        {4, false, "", false, k::date_ascending}, {5, false, "", false, k::date_descending},
        {5, false, "", true, k::name_ascending}, {1, true, "local", true, k::name_ascending},
    };
    for (const row &r : rows)
        EXPECT_EQ(listing::select_sort(r.order, r.top, r.filter, r.keyword), r.want) << r.order << r.filter;
}

TEST(Filters, SystemFoldersMimeFiltersAndTypes) {
    for (auto [name, system] : {std::pair{"$Recycle.Bin", true}, {"RECYCLER", true}, {"lost+found", true},
                                {"Lost+Found", false}, {"@eadir", false}, {"pvx_database2", false}})
        EXPECT_EQ(listing::is_system_folder(name), system) << name;
    for (auto [mime, filter, passes] : {std::tuple{"IMAGE/JPEG", "image", true}, {"video/mpeg", "VID", true},
                                        {storage::mime_none, "", false}, {"audio/mpeg", "", true}, {"torrent", "others", false}})
        EXPECT_EQ(listing::mime_passes_filter(mime, filter), passes) << mime;

    for (auto [mime, word] : {std::pair{"image/png", "photo"}, {"audio/x-ogg", "music"}, {"video/iso", "video_iso"},
                              {"video/isox", "video"}, {"VIDEO/mkv", "others"}, {"application/x-shockwave-flash", "phf"},
                              {"torrent", "torrent"}, {"none", "others"}})
        EXPECT_STREQ(listing::type_word_for_mime(mime), word) << mime;
}

}  // namespace
