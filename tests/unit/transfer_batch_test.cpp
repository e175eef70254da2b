// Batch copy, move and delete through their request handlers, with the
// event lines read from the framework pipe.
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "plugin/commands.h"
#include "transfer/batch.h"
#include "transfer/engine.h"
#include "transfer/selection.h"
#include "transfer_test_support.h"

namespace {

using namespace test_support;

const std::string root = "/opt/vtrhttpd/localhost.drives";
const std::string usb1 = root + "/USB1";
const std::string usb2 = root + "/USB2";
const std::string fslist = "/tmp/fslist";
const std::string end_marker = "<whole>101</whole>";

struct event { std::string name, filename, from, to; int item, total, percent, whole, status; };

std::vector<event> parse(const std::vector<std::string> &lines) {
    static const std::regex copy_re(
        "swf=<event>(\\w+)</event><filename>([^<]*)</filename><from>([^<]*)</from><to>([^<]*)</to>"
        "<item>(\\d+)</item><total>(\\d+)</total><percent>(\\d+)</percent><whole>(\\d+)</whole>"
        "<time_left>-?\\d+</time_left><status>(\\d+)</status>\n");
    static const std::regex delete_re(
        "swf=<event>(delete_from_list)</event><filename>([^<]*)</filename><from>([^<]*)</from>"
        "<item>(\\d+)</item><total>(\\d+)</total><whole>(\\d+)</whole><status>(\\d+)</status>\n");
    std::vector<event> out;
    for (const auto &l : lines) {
        std::smatch m;
        if (std::regex_match(l, m, copy_re))
            out.push_back({m[1], m[2], m[3], m[4], std::stoi(m[5]), std::stoi(m[6]), std::stoi(m[7]),
                           std::stoi(m[8]), std::stoi(m[9])});
        else if (std::regex_match(l, m, delete_re))
            out.push_back({m[1], m[2], m[3], "", std::stoi(m[4]), std::stoi(m[5]), 0, std::stoi(m[6]),
                           std::stoi(m[7])});
        else
            ADD_FAILURE() << "malformed event line: " << l;
    }
    return out;
}

int32_t run(std::vector<std::string> words) {
    request r(std::move(words));
    int marker = 0;
    VantorXmlNode response = &marker;
    return plugin::dispatch(plugin::file_operation_commands(), &response, &r.value);
}

void select_all(const std::vector<std::string> &paths) {
    for (const auto &p : paths) ASSERT_EQ(run({"select_user_storage_file_to_list", p, "select"}), 0) << p;
}

std::vector<int> field(const std::vector<event> &events, int event::*member) {
    std::vector<int> out;
    for (const auto &e : events) out.push_back(e.*member);
    return out;
}

class Batch : public ::testing::Test {
protected:
    void SetUp() override {
        std::system(("rm -rf " + root + " && mkdir -p " + usb1 + " " + usb2).c_str());
        ::unlink(fslist.c_str());
        write_file("/tmp/usb_name.txt", "USB1|Stick\nUSB2|Disk\nTINY|Tiny\n");
    }
    void TearDown() override {
        ::umount((root + "/TINY").c_str());
        ::umount(usb2.c_str());
        std::system(("rm -rf " + root).c_str());
        ::unlink(fslist.c_str());
        set_var("vtrsim_fat_paths", "");
    }
    // A separate file system at path (skipped where mounts are not allowed).
    bool mount_tmpfs(const std::string &path, const char *options) {
        std::system(("mkdir -p " + path).c_str());
        return ::mount("none", path.c_str(), "tmpfs", 0, options) == 0;
    }
};

TEST_F(Batch, RequestsAreCheckedBeforeTheThreadStarts) {
    write_file(usb1 + "/file", "x");
    EXPECT_EQ(run({"copy_user_storage_file_from_list", ""}), 8);
    EXPECT_EQ(run({"copy_user_storage_file_from_list", usb1 + "/file"}), 8);  // not a folder
    EXPECT_EQ(run({"move_user_storage_file_from_list", usb1 + "/none"}), 8);
    EXPECT_EQ(run({"copy_user_storage_file_from_list", "smb://unknown/share"}), 8);
    EXPECT_EQ(run({"copy_user_storage_file_from_list", usb1, "extra"}), 1);  // exactly two words
    EXPECT_EQ(run({"delete_user_storage_file_from_list", "true", "extra"}), 1);
}

TEST_F(Batch, CopyOfThreeEntriesReportsEachThirdAndEnds) {
    event_pipe pipe;
    for (const char *n : {"a.avi", "b.avi", "c.avi"}) write_file(usb1 + "/" + n, std::string(1000, 'z'));
    select_all({usb1 + "/a.avi", usb1 + "/b.avi", usb1 + "/c.avi"});
    ASSERT_EQ(run({"copy_user_storage_file_from_list", usb2}), 0);
    auto lines = pipe.wait_for(end_marker);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.front(),
              "swf=<event>copy_from_list</event><filename></filename><from></from><to>Disk</to><item>0</item>"
              "<total>0</total><percent>0</percent><whole>0</whole><time_left>0</time_left><status>0</status>\n");
    EXPECT_EQ(lines.back(),
              "swf=<event>copy_from_list</event><filename></filename><from></from><to>Disk</to><item>3</item>"
              "<total>3</total><percent>100</percent><whole>101</whole><time_left>0</time_left><status>0</status>\n");
    auto events = parse(std::vector<std::string>(lines.begin() + 1, lines.end() - 1));
    EXPECT_EQ(field(events, &event::whole), (std::vector<int>{0, 33, 33, 66, 66, 100}));
    EXPECT_EQ(field(events, &event::percent), (std::vector<int>{0, 100, 0, 100, 0, 100}));
    EXPECT_EQ(field(events, &event::item), (std::vector<int>{1, 1, 2, 2, 3, 3}));
    for (const auto &e : events) EXPECT_EQ(e.from, "Stick");
    EXPECT_FALSE(exists(fslist));
    struct stat st {};
    ASSERT_EQ(::stat((usb2 + "/b.avi").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 1001u);
    EXPECT_EQ(st.st_size, 1000);

    // The same selection again: unique names beside the first copies.
    pipe.clear();
    select_all({usb1 + "/a.avi"});
    ASSERT_EQ(run({"copy_user_storage_file_from_list", usb2 + "/"}), 0);
    pipe.wait_for(end_marker);
    EXPECT_TRUE(exists(usb2 + "/copy_1_of_a.avi"));
}

TEST_F(Batch, VanishedEntryIsReportedAndTheRestCopied) {
    event_pipe pipe;
    for (const char *n : {"a", "b", "c"}) write_file(usb1 + "/" + n, "data");
    select_all({usb1 + "/a", usb1 + "/b", usb1 + "/c"});
    ::unlink((usb1 + "/b").c_str());
    ASSERT_EQ(run({"copy_user_storage_file_from_list", usb2}), 0);
    auto events = parse(pipe.wait_for(end_marker));
    std::vector<std::string> seen;
    for (const auto &e : events) seen.push_back(e.filename + ":" + std::to_string(e.status));
    EXPECT_EQ(seen, (std::vector<std::string>{":0", "a:0", "a:0", "b:12", "c:0", "c:0", ":4"}));
    EXPECT_TRUE(exists(usb2 + "/c"));
    EXPECT_FALSE(exists(fslist));  // the last entry succeeded
}

TEST_F(Batch, FolderIntoItselfAndNoSelection) {
    event_pipe pipe;
    ASSERT_EQ(run({"copy_user_storage_file_from_list", usb2}), 0);  // no selection file
    auto none = pipe.wait_for(end_marker);
    EXPECT_EQ(none.size(), 2u);
    EXPECT_NE(none.back().find("<status>0</status>"), std::string::npos);

    std::system(("mkdir -p " + usb1 + "/f/inner && echo x > " + usb1 + "/f/inner/x").c_str());
    pipe.clear();
    select_all({usb1 + "/f/"});
    ASSERT_EQ(run({"copy_user_storage_file_from_list", usb1 + "/f/inner"}), 0);
    auto events = parse(pipe.wait_for(end_marker));
    EXPECT_EQ(field(events, &event::status), (std::vector<int>{0, 11, 4}));
    EXPECT_TRUE(exists(fslist));  // kept for a retry
    EXPECT_FALSE(exists(usb1 + "/f/inner/f"));
}

TEST_F(Batch, MoveRenamesOnOneDriveAndCopiesAcrossDrives) {
    event_pipe pipe;
    std::system(("mkdir -p " + usb1 + "/dst " + usb1 + "/tree/sub && echo 1 > " + usb1 + "/tree/sub/f").c_str());
    write_file(usb1 + "/m.avi", "movie");
    select_all({usb1 + "/m.avi"});
    ASSERT_EQ(run({"move_user_storage_file_from_list", usb1 + "/dst"}), 0);
    auto events = parse(pipe.wait_for(end_marker));
    EXPECT_EQ(field(events, &event::percent), (std::vector<int>{0, 0, 100, 100}));
    EXPECT_EQ(events[1].name, "move_from_list");
    EXPECT_FALSE(exists(usb1 + "/m.avi"));
    EXPECT_EQ(read_file(usb1 + "/dst/m.avi"), "movie");

    // A move onto a name that exists is refused.
    pipe.clear();
    write_file(usb1 + "/m.avi", "again");
    select_all({usb1 + "/m.avi"});
    ASSERT_EQ(run({"move_user_storage_file_from_list", usb1 + "/dst"}), 0);
    auto refused = parse(pipe.wait_for(end_marker));
    EXPECT_EQ(refused[refused.size() - 2].status, 11);
    EXPECT_EQ(read_file(usb1 + "/m.avi"), "again");
    ::unlink(fslist.c_str());

    if (!mount_tmpfs(usb2, "size=16m")) GTEST_SKIP() << "no mounts here";
    pipe.clear();
    select_all({usb1 + "/tree"});
    ASSERT_EQ(run({"move_user_storage_file_from_list", usb2}), 0);
    pipe.wait_for(end_marker);
    EXPECT_EQ(read_file(usb2 + "/tree/sub/f"), "1\n");
    EXPECT_FALSE(exists(usb1 + "/tree"));
}

TEST_F(Batch, SpaceShortagesAndTheFourGibRule) {
    if (!mount_tmpfs(root + "/TINY", "size=1m")) GTEST_SKIP() << "no mounts here";
    event_pipe pipe;
    // Not enough free space for the entry: stop before copying.
    make_sparse(usb1 + "/big", 2 * 1048576);
    select_all({usb1 + "/big"});
    ASSERT_EQ(run({"copy_user_storage_file_from_list", root + "/TINY"}), 0);
    auto stopped = parse(pipe.wait_for(end_marker));
    EXPECT_EQ(field(stopped, &event::status), (std::vector<int>{0, 22, 4}));
    EXPECT_TRUE(exists(fslist));
    ::unlink(fslist.c_str());
    pipe.clear();

    // Counted bytes fit, pages do not: 300 one-byte files need 300 pages.
    std::system(("mkdir -p " + usb1 + "/many && cd " + usb1 + "/many && for i in $(seq 300); do echo -n x > f$i; done")
                    .c_str());
    select_all({usb1 + "/many"});
    ASSERT_EQ(run({"copy_user_storage_file_from_list", root + "/TINY"}), 0);
    auto full = parse(pipe.wait_for(end_marker));
    ASSERT_GE(full.size(), 3u);
    EXPECT_EQ(full[full.size() - 2].status, 29);
    EXPECT_EQ(full.back().status, 4);
    ::unlink(fslist.c_str());
    pipe.clear();

    // A large file fails in the overlapped writes: the failure of a write
    // in flight is still the entry's result.
    std::string big(3 * 1048576, 'b');
    write_file(usb1 + "/big3", big);
    transfer::TransferProgress p;
    p.item_total = p.whole_total = static_cast<int64_t>(big.size());
    EXPECT_EQ(transfer::copy_file_with_progress((usb1 + "/big3").c_str(), (root + "/TINY/big3").c_str(), p, 0, "",
                                                ""),
              29);
    pipe.wait_for("<filename>big3</filename>");
    pipe.wait_for("<status>29</status>");
    pipe.clear();

    // A destination that holds no file of 4 GiB refuses one before copying.
    ASSERT_TRUE(mount_tmpfs(usb2, "size=8g"));
    set_var("vtrsim_fat_paths", usb2);
    make_sparse(usb1 + "/four", 4LL << 30);
    select_all({usb1 + "/four"});
    ASSERT_EQ(run({"copy_user_storage_file_from_list", usb2}), 0);
    auto refused = parse(pipe.wait_for(end_marker));
    EXPECT_EQ(field(refused, &event::status), (std::vector<int>{0, 4, 4}));
    EXPECT_FALSE(exists(usb2 + "/four"));
}

TEST_F(Batch, DeleteOfThreeEntriesAndCompanions) {
    event_pipe pipe;
    const char *companions[] = {".fanart.jpg", ".jpg", ".nfo", ".ass", ".idx", ".ssa", ".smi", ".srt", ".sub"};
    write_file(usb1 + "/Movie.avi", "m");
    for (const char *c : companions) write_file(usb1 + "/Movie" + c, "c");
    write_file(usb1 + "/Movie.txt", "kept");
    write_file(usb1 + "/photo.jpg", "p");
    write_file(usb1 + "/photo.nfo", "kept too");
    std::system(("mkdir -p " + usb1 + "/folder/sub && echo 1 > " + usb1 + "/folder/sub/.deep").c_str());
    select_all({usb1 + "/Movie.avi", usb1 + "/photo.jpg", usb1 + "/folder"});
    ASSERT_EQ(run({"delete_user_storage_file_from_list", "true"}), 0);
    auto events = parse(pipe.wait_for(end_marker));
    EXPECT_EQ(field(events, &event::whole), (std::vector<int>{0, 33, 66, 100, 101}));
    EXPECT_EQ(field(events, &event::status), (std::vector<int>{0, 0, 0, 0, 0}));
    EXPECT_EQ(events[0].filename, "Movie.avi");
    EXPECT_EQ(events[0].from, "Stick");
    for (const char *c : companions) EXPECT_FALSE(exists(usb1 + "/Movie" + c)) << c;
    EXPECT_TRUE(exists(usb1 + "/Movie.txt"));
    EXPECT_TRUE(exists(usb1 + "/photo.nfo"));
    EXPECT_FALSE(exists(usb1 + "/folder"));
    EXPECT_FALSE(exists(fslist));

    // Without the switch only the video goes.
    pipe.clear();
    write_file(usb1 + "/Movie.avi", "m");
    select_all({usb1 + "/Movie.avi"});
    ASSERT_EQ(run({"delete_user_storage_file_from_list", "TRUE"}), 0);
    pipe.wait_for(end_marker);
    EXPECT_TRUE(exists(usb1 + "/Movie.txt"));
    EXPECT_FALSE(exists(usb1 + "/Movie.avi"));
}

TEST_F(Batch, DeleteStopsAtAHiddenFileAndGoesOnAfterAVanishedEntry) {
    event_pipe pipe;
    write_file(usb1 + "/gone", "g");
    write_file(usb1 + "/last", "l");
    std::system(("mkdir -p " + usb1 + "/keep/visible && echo 1 > " + usb1 + "/keep/.hidden").c_str());
    write_file(usb1 + "/after", "a");
    select_all({usb1 + "/gone", usb1 + "/last", usb1 + "/keep", usb1 + "/after"});
    ::unlink((usb1 + "/gone").c_str());
    ASSERT_EQ(run({"delete_user_storage_file_from_list"}), 0);
    auto events = parse(pipe.wait_for(end_marker));
    std::vector<std::string> seen;
    for (const auto &e : events) seen.push_back(e.filename + ":" + std::to_string(e.whole) + ":" + std::to_string(e.status));
    EXPECT_EQ(seen, (std::vector<std::string>{"gone:0:0", "gone:25:12", "last:50:0", "keep:75:4", ":101:4"}));
    EXPECT_TRUE(exists(usb1 + "/keep/.hidden"));
    EXPECT_FALSE(exists(usb1 + "/keep/visible"));
    EXPECT_TRUE(exists(usb1 + "/after"));
    // The selection stays with what is left.
    EXPECT_EQ(read_file(fslist), "1|Stick|" + usb1 + "/gone\n0|Stick|" + usb1 + "/last\n1|Stick|" + usb1 +
                                     "/keep\n1|Stick|" + usb1 + "/after\n");

    EXPECT_EQ(transfer::delete_status_for(ENOTEMPTY), 0);
    EXPECT_EQ(transfer::delete_status_for(EACCES), 402);
    EXPECT_EQ(transfer::delete_status_for(EBUSY), 2);
    EXPECT_EQ(transfer::delete_status_for(EEXIST), 60);
}

}  // namespace
