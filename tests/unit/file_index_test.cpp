// The file index: every row of the folder-counting table, the sort orders,
// the drive-label order at the drives root, exact names and the split of
// the client's path. (The count over a network answer is end-to-end.)
#include <sys/time.h>

#include "listing/file_index.h"
#include "test_util.h"

namespace {

using tu::answer;
using tu::drive_tree;
using tu::run;

answer index_of(const std::string &entry, const std::string &filter, const std::string &sort,
                const std::string &folders, const std::string &files) {
    return run({"get_user_storage_file_index", entry, filter, sort, folders, files});
}

// f/: a_plain/ (ordinary), b_bd/ (Blu-ray structure), c.avi, d.mp3, e.jpg,
// f.unknownext, and entries never counted: .hidden/, $RECYCLE.BIN/,
// lost+found/, .dot.avi
class FileIndex : public ::testing::Test {
protected:
    void SetUp() override {
        REQUIRE_SANDBOX();
        tree = std::make_unique<drive_tree>("INDEX_DRIVE");
        for (const char *d : {"f/a_plain", "f/.hidden", "f/$RECYCLE.BIN", "f/lost+found"}) tree->dir(d);
        for (const char *f : {"f/b_bd/BDMV/index.bdmv", "f/b_bd/BDMV/MovieObject.bdmv", "f/f.unknownext", "f/.dot.avi"})
            tree->file(f);
        tree->file("f/c.avi", "333");
        tree->file("f/d.mp3", "1");
        tree->file("f/e.jpg", "22");
    }
    std::string entry(const std::string &name) const { return tree->at("f/" + name); }
    std::unique_ptr<drive_tree> tree;
};

TEST_F(FileIndex, FolderCountingTable) {
    struct row {
        const char *folders, *files, *filter;
        std::vector<std::string> counted;  // in name order
    };
    const row rows[] = {
        // folders hidden, files shown, empty or "video": only disc-structure folders
        {"false", "true", "", {"b_bd", "c.avi", "d.mp3", "e.jpg"}},
        {"false", "true", "video", {"b_bd", "c.avi"}},
        // folders hidden, any other case: no folders
        {"false", "true", "music", {"d.mp3"}},
        {"false", "false", "", {}},
        {"FALSE", "false", "video", {}},
        // folders shown, files hidden, empty or "video": only ordinary folders
        {"true", "false", "", {"a_plain"}},
        {"true", "False", "video", {"a_plain"}},
        // folders shown, "photo" or "music": only ordinary folders
        {"true", "true", "photo", {"a_plain", "e.jpg"}},
        {"yes", "false", "music", {"a_plain"}},
        // folders shown, files shown, empty, "video" or another filter: all folders
        {"true", "true", "", {"a_plain", "b_bd", "c.avi", "d.mp3", "e.jpg"}},
        {"true", "true", "video", {"a_plain", "b_bd", "c.avi"}},
        {"true", "true", "torrent", {"a_plain", "b_bd"}},
        {"true", "true", "image/jp", {"a_plain", "b_bd", "e.jpg"}},
        // folders shown, files hidden, a filter other than the four: all folders
        {"true", "false", "torrent", {"a_plain", "b_bd"}},
    };
    const std::string all[] = {"a_plain", "b_bd", "c.avi", "d.mp3", "e.jpg", "f.unknownext"};
    for (const row &r : rows) {
        for (const std::string &name : all) {
            answer a = index_of(entry(name), r.filter, "name_asc", r.folders, r.files);
            ASSERT_EQ(a.result, 0) << name;
            EXPECT_EQ(vtrsim::child_tags(a.root), (std::vector<std::string>{"index", "total"}));
            EXPECT_EQ(a.text("total"), std::to_string(r.counted.size()))
                << r.folders << "/" << r.files << "/" << r.filter;
            std::string expected;
            for (std::size_t i = 0; i < r.counted.size(); ++i)
                if (r.counted[i] == name) expected = std::to_string(i + 1);
            EXPECT_EQ(a.text("index"), expected) << name << " " << r.folders << "/" << r.files << "/" << r.filter;
        }
    }
}

TEST_F(FileIndex, SortOrders) {
    struct timeval old_times[2] = {{1000000000, 0}, {1000000000, 0}};
    struct timeval new_times[2] = {{1500000000, 0}, {1500000000, 0}};
    ASSERT_EQ(::utimes(entry("d.mp3").c_str(), new_times), 0);
    ASSERT_EQ(::utimes(entry("c.avi").c_str(), old_times), 0);
    ASSERT_EQ(::utimes(entry("e.jpg").c_str(), old_times), 0);
    struct row {
        const char *sort;
        const char *name;
        const char *index;
    };
    // Counted: a_plain, b_bd, c.avi (3 bytes), d.mp3 (1 byte, newest), e.jpg (2 bytes)
    const row rows[] = {
        {"name_asc", "c.avi", "3"},   {"NAME_DSC", "a_plain", "2"}, {"name_dsc", "e.jpg", "3"},
        {"size_asc", "d.mp3", "3"},   {"size_asc", "c.avi", "5"},   {"Size_Dsc", "c.avi", "3"},
        {"size_dsc", "b_bd", "1"},    {"date_dsc", "d.mp3", "3"},   {"date_asc", "d.mp3", "5"},
        {"bogus", "c.avi", "3"},
    };
    for (const row &r : rows) {
        answer a = index_of(entry(r.name), "", r.sort, "true", "true");
        ASSERT_EQ(a.result, 0);
        EXPECT_EQ(a.text("index"), r.index) << r.sort << " " << r.name;
        EXPECT_EQ(a.text("total"), "5");
    }
}

TEST_F(FileIndex, PathForms) {
    answer plain = index_of(entry("a_plain"), "", "", "true", "true");
    answer slashes = index_of(entry("a_plain") + "///", "", "", "true", "true");
    EXPECT_EQ(plain.text("index"), "1");
    EXPECT_EQ(slashes.xml(), plain.xml());
    // exact names: both spellings exist and stand at their own places
    tree->file("f/Movie.avi");
    tree->file("f/movie.avi");
    answer upper = index_of(entry("Movie.avi"), "", "", "true", "true");
    answer lower = index_of(entry("movie.avi"), "", "", "true", "true");
    EXPECT_EQ(upper.text("total"), "7");
    EXPECT_NE(upper.text("index"), lower.text("index"));
    EXPECT_TRUE(upper.text("index") == "6" || upper.text("index") == "7");
    EXPECT_TRUE(lower.text("index") == "6" || lower.text("index") == "7");

    struct row {
        std::string path;
        int32_t result;
    };
    const row rows[] = {
        {entry("missing.avi"), 11},
        {"INDEX_DRIVE/f/c.avi", 4},  // exists once translated; the parent is then read as written
        {"INDEX_DRIVE", 11},         // no "/" to split at
        {"/", 11},
        {"smb://unknown-nas/share/x.avi", 11},
    };
    for (const row &r : rows) EXPECT_EQ(index_of(r.path, "", "", "true", "true").result, r.result) << r.path;
    EXPECT_EQ(run({"get_user_storage_file_index", entry("c.avi"), "", "", "true"}).result, 1);
}

TEST(FileIndexRoot, DriveLabelOrder) {
    REQUIRE_SANDBOX();
    drive_tree a("USB_DRIVE_A"), b("USB_DRIVE_B"), c("SATA_DISK_C"), share("NETWORK_SHARE");
    FILE *names = std::fopen("/tmp/usb_name.txt", "w");
    ASSERT_NE(names, nullptr);
    std::fputs("USB_DRIVE_A|Zeta stick\nUSB_DRIVE_B|alpha stick\nSATA_DISK_C|Middle disk\n", names);
    std::fclose(names);
    struct row {
        const char *sort;
        const char *drive;
        const char *index;
    };
    const row rows[] = {
        {"", "USB_DRIVE_B", "1"}, {"", "SATA_DISK_C", "2"}, {"", "USB_DRIVE_A", "3"},
        {"name_dsc", "USB_DRIVE_A", "1"}, {"name_dsc", "USB_DRIVE_B", "3"}, {"", "NETWORK_SHARE", ""},
    };
    for (const row &r : rows) {
        answer x = index_of(std::string("/opt/vtrhttpd/localhost.drives/") + r.drive, "music", r.sort, "true", "true");
        ASSERT_EQ(x.result, 0);
        EXPECT_EQ(x.text("index"), r.index) << r.sort << " " << r.drive;
        EXPECT_EQ(x.text("total"), "3");
    }
    std::remove("/tmp/usb_name.txt");
}

}  // namespace
