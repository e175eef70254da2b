// The selection file: request sequences and the file they leave, the suffix rule, the reader and the done flag.
#include "test_util.h"
#include "transfer/selection.h"

namespace {

using namespace tu;

const std::string drive = "/opt/vtrhttpd/localhost.drives/USB1";
const std::string fslist = "/tmp/fslist";

int32_t select(const std::string &path, const std::string &action) {
    request r({"select_user_storage_file_to_list", path, action});
    return base::to_host(transfer::select_user_storage_file_to_list(nullptr, &r.value));
}

struct SelectionFile : ::testing::Test {
    void SetUp() override {
        ::unlink(fslist.c_str());
        write_file("/tmp/usb_name.txt", "USB1|Stick\nSATA_A1|Disk\n");
    }
    void TearDown() override { ::unlink(fslist.c_str()); }
};

TEST_F(SelectionFile, RequestSequencesLeaveTheExpectedFile) {
    struct step { std::string path; const char *action; int32_t result; };
    struct row { const char *what; std::vector<step> steps; std::string file; };  // file "": none left
    const std::string a = drive + "/a.avi", b = drive + "/b.avi", c = drive + "/c.avi";
    const std::string ra = "1|Stick|" + a + "\n", rb = "1|Stick|" + b + "\n";
    const std::vector<row> rows = {
        {"select twice writes one record", {{a, "select", 0}, {a, "select", 0}}, ra},
        {"deselect of the only entry removes the file", {{a, "select", 0}, {a, "deselect", 0}}, ""},
        {"deselect flags the record", {{a, "select", 0}, {b, "select", 0}, {a, "deselect", 0}}, "0|Stick|" + a + "\n" + rb},
        {"reselect rewrites the flag", {{a, "select", 0}, {b, "select", 0}, {a, "deselect", 0}, {a, "select", 0}}, ra + rb},
        {"deselect of an absent path appends a lone 0", {{a, "select", 0}, {c, "deselect", 0}}, ra + "0"},
        {"the next record after the lone 0 reads as deselected", {{a, "select", 0}, {c, "deselect", 0}, {c, "select", 0}},
         ra + "01|Stick|" + c + "\n"},
        {"deselect without a file creates nothing", {{a, "deselect", 0}}, ""},
        {"deselect_all removes the file", {{a, "select", 0}, {"", "deselect_all", 0}}, ""},
        {"deselect_all without a file", {{"", "deselect_all", 0}}, ""},
        {"bad arguments leave the file alone",
         {{a, "select", 0}, {b, "Select", 8}, {"", "select", 8}, {"", "deselect", 8}, {"smb://other/x/y", "select", 8}}, ra},
        {"a path ending a stored path is that record", {{a, "select", 0}, {"USB1/a.avi", "deselect", 0}}, ""},
        {"too long for a record", {{drive + "/" + std::string(4080, 'x'), "select", 8}}, ""},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        ::unlink(fslist.c_str());
        for (const step &s : r.steps) EXPECT_EQ(select(s.path, s.action), s.result) << s.path << " " << s.action;
        struct stat st {};
        EXPECT_EQ(read_file(fslist), r.file);
        EXPECT_EQ(::stat(fslist.c_str(), &st) == 0 ? st.st_mode & 0777 : 0600u, 0600u);
        EXPECT_EQ(exists(fslist), !r.file.empty());
    }
    ASSERT_EQ(::mkdir(fslist.c_str(), 0700), 0);  // a removal that fails
    write_file(fslist + "/x", "x");
    EXPECT_EQ(select("", "deselect_all"), 4);
    fs::remove_all(fslist);
}

struct open_file {
    int fd;
    explicit open_file(const std::string &content) : fd((write_file(fslist, content), ::open(fslist.c_str(), O_RDWR))) {}
    ~open_file() { ::close(fd), ::unlink(fslist.c_str()); }
    off_t offset() const { return ::lseek(fd, 0, SEEK_CUR); }
};

TEST_F(SelectionFile, SearchFollowsTheSuffixRule) {
    struct row { const char *content; const char *path; int result; off_t offset; };
    const row rows[] = {
        {"1|L|/d/b/x.avi\n", "/b/x.avi", 1, 0}, {"1|L|/d/b/x.avi\n", "/d/b/x.avi", 1, 0}, {"1|L|/a\n0|L|/b\n", "/b", 0, 7},
        {"1|L|/ab\n", "/a", -1, -1}, {"1|/x|/x\n", "/x", -1, -1},  // an occurrence inside the label does not end the line
        {"1|L|\n", "1|", -1, -1},  // the flag and the first "|" are not searched
        {"0\n1|L|/z\n", "/z", 1, 2}, {"", "/z", -1, -1},
    };
    for (const row &r : rows) {
        open_file f(r.content);
        EXPECT_EQ(transfer::find_selection_record(f.fd, r.path), r.result) << r.content;
        if (r.offset >= 0) { EXPECT_EQ(f.offset(), r.offset) << r.content; }
    }
    EXPECT_EQ(transfer::find_selection_record(-1, "/x"), -1);
    EXPECT_EQ(transfer::count_selected_records(-1), 0);
}

TEST_F(SelectionFile, ReaderTakesSelectedRecordsOnlyAndFlagsDoneOnesInPlace) {
    char path[64], label[4096] = "sentinel";
    {
        open_file f("0|L|/skip\n1|Label|/p/one\n1|nobar\n11|L|/weird\n01|L|/lone\n");
        EXPECT_EQ(transfer::count_selected_records(f.fd), 3);
        ::lseek(f.fd, 0, SEEK_SET);
        std::string got;
        while (get_filename(f.fd, path, sizeof path, label) == 1) got += std::string(path) + "@" + label + " ";
        // A record without a label leaves the last one; a doubled flag shifts the fields.
        EXPECT_EQ(got, "/p/one@Label nobar@Label L|/weird@ ");
        EXPECT_EQ(get_filename(-1, path, sizeof path, label), 0);
    }
    open_file f("1|L|/a\n1|Label|/bb\n1|L|/c\n");
    ASSERT_EQ(get_filename(f.fd, path, sizeof path, label) + get_filename(f.fd, path, sizeof path, label), 2);
    const off_t before = f.offset();
    transfer::mark_record_done(f.fd, path, label);
    EXPECT_EQ(f.offset(), before);
    EXPECT_EQ(read_file(fslist), "1|L|/a\n0|Label|/bb\n1|L|/c\n");
    ASSERT_EQ(get_filename(f.fd, path, sizeof path, label), 1);
    EXPECT_STREQ(path, "/c");
    ::lseek(f.fd, 0, SEEK_SET);
    EXPECT_EQ(transfer::sum_selected_sizes(f.fd), -2);  // two missing files count -1 each
}

}  // namespace
