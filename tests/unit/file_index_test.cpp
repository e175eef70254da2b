// The file index: the folder-counting table, sort orders, drive-label order, exact names and path forms.
#include <sys/time.h>

#include <algorithm>

#include "listing/file_index.h"
#include "test_util.h"

namespace {

tu::answer index_of(const std::string &entry, const std::string &filter, const std::string &sort,
                    const std::string &folders = "true", const std::string &files = "true") {
    return tu::run({"get_user_storage_file_index", entry, filter, sort, folders, files});
}
std::string place(const tu::answer &a) { return a.text("index") + "/" + a.text("total"); }

// f/: a_plain/, b_bd/ (a Blu-ray structure), c.avi, d.mp3, e.jpg, f.unknownext and entries never counted.
struct FileIndex : ::testing::Test {
    std::unique_ptr<tu::drive_tree> tree;
    void SetUp() override {
        REQUIRE_SANDBOX();
        tree = std::make_unique<tu::drive_tree>("INDEX_DRIVE");
        for (const char *d : {"f/a_plain", "f/.hidden", "f/$RECYCLE.BIN", "f/lost+found"}) tree->dir(d);
        for (const char *f : {"f/b_bd/BDMV/index.bdmv", "f/b_bd/BDMV/MovieObject.bdmv", "f/f.unknownext", "f/.dot.avi"})
            tree->file(f);
        tree->file("f/c.avi", "333");
        tree->file("f/d.mp3", "1");
        tree->file("f/e.jpg", "22");
    }
    std::string entry(const std::string &name) const { return tree->at("f/" + name); }
};

TEST_F(FileIndex, FolderCountingTable) {
    struct row { const char *folders, *files, *filter, *counted; };  // counted: in name order
    const row rows[] = {
        // folders hidden, files shown, empty or "video": only disc-structure folders; otherwise no folders
        {"false", "true", "", "b_bd c.avi d.mp3 e.jpg"}, {"false", "true", "video", "b_bd c.avi"},
        {"false", "true", "music", "d.mp3"}, {"false", "false", "", ""}, {"FALSE", "false", "video", ""},
        // folders shown, files hidden, empty or "video" (and with "photo" or "music"): only ordinary folders
        {"true", "false", "", "a_plain"}, {"true", "False", "video", "a_plain"},
        {"true", "true", "photo", "a_plain e.jpg"}, {"yes", "false", "music", "a_plain"},
        // folders and files shown, or another filter: all folders
        {"true", "true", "", "a_plain b_bd c.avi d.mp3 e.jpg"}, {"true", "true", "video", "a_plain b_bd c.avi"},
        {"true", "true", "torrent", "a_plain b_bd"}, {"true", "true", "image/jp", "a_plain b_bd e.jpg"},
        {"true", "false", "torrent", "a_plain b_bd"},
    };
    for (const row &r : rows) {
        std::vector<std::string> counted;
        std::istringstream words(r.counted);
        for (std::string w; words >> w;) counted.push_back(w);
        std::string got, want;
        for (const char *name : {"a_plain", "b_bd", "c.avi", "d.mp3", "e.jpg", "f.unknownext"}) {
            tu::answer a = index_of(entry(name), r.filter, "name_asc", r.folders, r.files);
            ASSERT_EQ(vtrsim::child_tags(a.root), (std::vector<std::string>{"index", "total"})) << a.result;
            got += place(a) + " ";
            auto at = std::find(counted.begin(), counted.end(), name);
            want += (at == counted.end() ? "" : std::to_string(at - counted.begin() + 1)) + "/" + std::to_string(counted.size()) + " ";
        }
        EXPECT_EQ(got, want) << r.folders << "/" << r.files << "/" << r.filter;
    }
}

TEST_F(FileIndex, SortOrdersAndPathForms) {
    struct timeval old_times[2] = {{1000000000, 0}, {1000000000, 0}}, new_times[2] = {{1500000000, 0}, {1500000000, 0}};
    ASSERT_EQ(::utimes(entry("d.mp3").c_str(), new_times), 0);
    ASSERT_EQ(::utimes(entry("c.avi").c_str(), old_times), 0);
    ASSERT_EQ(::utimes(entry("e.jpg").c_str(), old_times), 0);
    // Counted: a_plain, b_bd, c.avi (3 bytes), d.mp3 (1 byte, newest), e.jpg (2 bytes)
    struct row { const char *sort, *name, *index; };
    for (row r : {row{"name_asc", "c.avi", "3"}, {"NAME_DSC", "a_plain", "2"}, {"name_dsc", "e.jpg", "3"},
                  {"size_asc", "d.mp3", "3"}, {"size_asc", "c.avi", "5"}, {"Size_Dsc", "c.avi", "3"},
                  {"size_dsc", "b_bd", "1"}, {"date_dsc", "d.mp3", "3"}, {"date_asc", "d.mp3", "5"},
                  {"bogus", "c.avi", "3"}})
        EXPECT_EQ(place(index_of(entry(r.name), "", r.sort)), std::string(r.index) + "/5") << r.sort << " " << r.name;
    EXPECT_EQ(index_of(entry("a_plain") + "///", "", "").xml(), index_of(entry("a_plain"), "", "").xml());
    tree->file("f/Movie.avi");  // exact names: both spellings stand at their own places
    tree->file("f/movie.avi");
    EXPECT_EQ(std::stoi(index_of(entry("Movie.avi"), "", "").text("index")) + std::stoi(index_of(entry("movie.avi"), "", "").text("index")), 13);
    tree->dir("f/v");  // a one-character name counts; a link to a folder is no folder
    ASSERT_EQ(::symlink("a_plain", entry("w").c_str()), 0);
    EXPECT_EQ(place(index_of(entry("v"), "", "")), "3/8");
    struct path { std::string path; int32_t result; };
    for (const path &r : {path{entry("missing.avi"), 11}, {"INDEX_DRIVE/f/c.avi", 4},  // parent then read as written
                          {entry("c.avi") + "/", 11},  // tested for existence before the "/" go
                          {"INDEX_DRIVE", 11}, {"/", 11}, {"smb://unknown-nas/share/x.avi", 11}})
        EXPECT_EQ(index_of(r.path, "", "").result, r.result) << r.path;
    EXPECT_EQ(tu::run({"get_user_storage_file_index", entry("c.avi"), "", "", "true"}).result, 1);
}

TEST(FileIndexRoot, DriveLabelOrder) {
    REQUIRE_SANDBOX();
    tu::drive_tree a("USB_DRIVE_A"), b("USB_DRIVE_B"), c("SATA_DISK_C"), share("NETWORK_SHARE");
    tu::write_file("/tmp/usb_name.txt", "USB_DRIVE_A|Zeta stick\nUSB_DRIVE_B|alpha stick\nSATA_DISK_C|Middle disk\n");
    struct row { const char *sort, *drive, *index; };
    for (row r : {row{"", "USB_DRIVE_B", "1"}, {"", "SATA_DISK_C", "2"}, {"", "USB_DRIVE_A", "3"},
                  {"name_dsc", "USB_DRIVE_A", "1"}, {"name_dsc", "USB_DRIVE_B", "3"}, {"", "NETWORK_SHARE", ""}})
        EXPECT_EQ(place(index_of(tu::drives_root + "/" + r.drive, "music", r.sort)), std::string(r.index) + "/3") << r.drive;
    ::unlink("/tmp/usb_name.txt");
}

}  // namespace
