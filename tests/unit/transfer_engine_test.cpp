// The copy engine: report points, the 4 GiB rule, tails, empty files,
// unique names, the folder walk and its start events.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "transfer/batch.h"
#include "transfer/engine.h"
#include "test_util.h"

namespace {

using namespace tu;

constexpr long long MiB = 1048576;
constexpr long long GiB = 1073741824;

const std::string work = "/tmp/engine_test";

struct event_fields { std::string filename; int percent, whole, status; };

std::string field_text(const std::string &line, const std::string &tag) {
    const std::size_t open = line.find("<" + tag + ">");
    const std::size_t close = line.find("</" + tag + ">");
    if (open == std::string::npos || close == std::string::npos) return "";
    const std::size_t from = open + tag.size() + 2;
    return line.substr(from, close - from);
}

std::vector<event_fields> parse(const std::vector<std::string> &lines) {
    std::vector<event_fields> out;
    for (const auto &l : lines)
        out.push_back({field_text(l, "filename"), std::stoi(field_text(l, "percent")),
                       std::stoi(field_text(l, "whole")), std::stoi(field_text(l, "status"))});
    return out;
}

class Engine : public ::testing::Test {
protected:
    void SetUp() override {
        std::system(("rm -rf " + work + " && mkdir -p " + work).c_str());
        transfer::quiet_file_start = 0;
        start_copy_time = {0, 0};
        gettimeofday(&start_copy_time, nullptr);
    }
    void TearDown() override { std::system(("rm -rf " + work).c_str()); }

    transfer::TransferProgress progress_for(long long size) {
        transfer::TransferProgress p;
        p.item = 1;
        p.total = 1;
        p.permission_kind = 1;
        p.item_total = size;
        p.whole_total = size;
        p.step = transfer::report_step(size);
        return p;
    }
};

TEST(EngineRules, FourGibLimitOfKindTwo) {
    struct row { int32_t kind; long long size; bool fits; };
    const row rows[] = {
        {2, 4 * GiB - 1, true}, {2, 4 * GiB, false}, {2, 8 * GiB + 5, false},
        {1, 4 * GiB, true},     {2, 0, true},        {0, 4 * GiB, true},
    };
    for (const row &r : rows) EXPECT_EQ(transfer::fits_destination(r.kind, r.size), r.fits) << r.kind << " " << r.size;
}

TEST(EngineRules, ReportStepsAndThresholds) {
    struct row { long long total, step; };
    const row rows[] = {
        {GiB + 1, (GiB + 1) / 100}, {GiB, 16 * MiB}, {31 * MiB + 1, 16 * MiB}, {31 * MiB, 0}, {0, 0}, {-1, 0},
    };
    for (const row &r : rows) EXPECT_EQ(transfer::report_step(r.total), r.step) << r.total;

    transfer::TransferProgress p;
    p.item_total = 100;
    p.step = 30;
    p.item_done = 0;
    EXPECT_EQ(transfer::report_threshold(p, 100), 70);  // next boundary 30 bytes in
    p.item_done = 50;  // a folder's second file, 10 bytes short of the boundary at 60
    EXPECT_EQ(transfer::report_threshold(p, 40), 30);
    EXPECT_EQ(transfer::report_threshold(p, 10), 0);  // ends on the boundary: no report
    p.step = 0;
    EXPECT_EQ(transfer::report_threshold(p, 40), 0);
}

TEST_F(Engine, ReportPointsOfSixteenMibAndOfHundredths) {
    event_pipe pipe;
    make_sparse(work + "/forty", 40 * MiB);
    auto p = progress_for(40 * MiB);
    EXPECT_EQ(transfer::copy_file_with_progress((work + "/forty").c_str(), (work + "/forty.out").c_str(), p, 0,
                                                "Stick", "Disk"),
              0);
    // A small step of a twentieth: the count of steps is the percent field.
    make_sparse(work + "/twenty", 20 * MiB);
    auto q = progress_for(20 * MiB);
    q.step = 5 * MiB;
    EXPECT_EQ(transfer::copy_file_with_progress((work + "/twenty").c_str(), (work + "/twenty.out").c_str(), q, 0,
                                                "Stick", "Disk"),
              0);
    auto events = parse(pipe.wait_for("<filename>twenty</filename><from>Stick</from><to>Disk</to><item>1</item>"
                                      "<total>1</total><percent>100"));
    std::vector<int> forty, twenty;
    for (const auto &e : events) (e.filename == "forty" ? forty : twenty).push_back(e.percent);
    EXPECT_EQ(forty, (std::vector<int>{0, 40, 80, 100}));
    EXPECT_EQ(twenty, (std::vector<int>{0, 1, 2, 3, 100}));
    EXPECT_EQ(p.item_done, 40 * MiB);
    EXPECT_EQ(p.whole_done, 40 * MiB);
    struct stat st {};
    ASSERT_EQ(::stat((work + "/forty.out").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 40 * MiB);
}

TEST_F(Engine, TailAndEmptyFiles) {
    event_pipe pipe;
    std::string content(MiB + 1234, '\0');
    std::mt19937 random(7);
    for (auto &c : content) c = static_cast<char>(random());
    write_file(work + "/tail", content);
    auto p = progress_for(static_cast<long long>(content.size()));
    EXPECT_EQ(transfer::copy_file_with_progress((work + "/tail").c_str(), (work + "/tail.out").c_str(), p, 0, "", ""), 0);
    EXPECT_EQ(read_file(work + "/tail.out"), content);

    write_file(work + "/empty", "");
    auto e = progress_for(0);
    e.item_done = 5;
    EXPECT_EQ(transfer::copy_file_with_progress((work + "/empty").c_str(), (work + "/empty.out").c_str(), e, 0, "", ""), 0);
    EXPECT_TRUE(exists(work + "/empty.out"));
    EXPECT_EQ(e.item_done, 5);  // not touched
    auto lines = pipe.wait_for("<filename>tail</filename><from></from><to></to><item>1</item><total>1</total><percent>100");
    for (const auto &l : lines) EXPECT_EQ(l.find("empty"), std::string::npos) << l;
}

TEST_F(Engine, RefusalsAndTheirEvents) {
    event_pipe pipe;
    make_sparse(work + "/four", 4 * GiB);
    auto p = progress_for(4 * GiB);
    p.permission_kind = 2;
    EXPECT_EQ(transfer::copy_file_with_progress((work + "/four").c_str(), (work + "/four.out").c_str(), p, 0, "", ""), 4);
    EXPECT_FALSE(exists(work + "/four.out"));  // refused before anything is opened
    EXPECT_EQ(p.item_done, 0);

    auto m = progress_for(10);
    EXPECT_EQ(transfer::copy_file_with_progress((work + "/missing").c_str(), (work + "/m.out").c_str(), m, 0, "", ""), 4);
    write_file(work + "/small", "0123456789");
    EXPECT_EQ(transfer::copy_file_with_progress((work + "/small").c_str(), (work + "/no/such/dir").c_str(), m, 0, "", ""),
              27);
    auto events = parse(pipe.wait_for("<status>27</status>"));
    std::vector<int> statuses;
    for (const auto &e : events) statuses.push_back(e.status);
    EXPECT_EQ(statuses, (std::vector<int>{4, 4, 27}));
}

TEST_F(Engine, UniqueTargetNames) {
    char folder[4096] = "/tmp/engine_test/";
    char out[4096];
    ASSERT_TRUE(transfer::make_target_path(out, folder, "/x.avi", true));
    EXPECT_STREQ(out, "/tmp/engine_test/x.avi");
    EXPECT_STREQ(folder, "/tmp/engine_test");  // the caller's folder lost its "/"
    write_file(work + "/x.avi", "1");
    ASSERT_TRUE(transfer::make_target_path(out, folder, "/x.avi", true));
    EXPECT_STREQ(out, "/tmp/engine_test/copy_1_of_x.avi");
    write_file(out, "2");
    ASSERT_TRUE(transfer::make_target_path(out, folder, "x.avi", true));
    EXPECT_STREQ(out, "/tmp/engine_test/copy_2_of_x.avi");
    ASSERT_TRUE(transfer::make_target_path(out, folder, "/x.avi", false));
    EXPECT_STREQ(out, "/tmp/engine_test/x.avi");
    EXPECT_FALSE(transfer::make_target_path(out, folder, ("/" + std::string(4090, 'n')).c_str(), false));
    EXPECT_STREQ(transfer::base_name("/a/b.avi"), "b.avi");
    EXPECT_STREQ(transfer::base_name("/a/b/"), "");
    EXPECT_STREQ(transfer::base_name("plain"), "");
}

TEST_F(Engine, FolderTreeCopyAnnouncesItsFirstFileOnly) {
    event_pipe pipe;
    std::system(("mkdir -p " + work + "/src/sub/deeper " + work + "/dst").c_str());
    write_file(work + "/src/a.txt", "aa");
    write_file(work + "/src/b.txt", "bbb");
    write_file(work + "/src/sub/c.txt", "c");
    write_file(work + "/src/sub/deeper/d.txt", "dddd");
    write_file(work + "/src/.hidden", "h");
    plugin::path_buffer source, target;
    std::strcpy(source, (work + "/src").c_str());
    std::strcpy(target, (work + "/dst/src").c_str());
    auto p = progress_for(2 + 3 + 1 + 4 + 1 + 3 * 4096);
    EXPECT_EQ(transfer::copy_folder_with_progress(source, target, p, 0, "", ""), 0);
    EXPECT_EQ(p.item_done, p.item_total);
    EXPECT_STREQ(source, (work + "/src/").c_str());  // restored, with its "/"
    EXPECT_EQ(read_file(work + "/dst/src/sub/deeper/d.txt"), "dddd");
    EXPECT_EQ(read_file(work + "/dst/src/.hidden"), "h");
    EXPECT_EQ(transfer::quiet_file_start.load(), 0);
    // Walked from the last entry: files in reverse natural order, then the
    // folders; only the first file sends its start event.
    auto events = parse(pipe.wait_for("<filename>d.txt</filename>"));
    std::string order;
    for (const auto &e : events) order += e.filename + " ";
    EXPECT_EQ(order, "b.txt b.txt a.txt .hidden c.txt d.txt ");

    std::strcpy(source, (work + "/src").c_str());
    std::strcpy(target, (work + "/dst/src").c_str());
    EXPECT_EQ(transfer::copy_folder_with_progress(source, target, p, 0, "", ""), 4);  // exists already
    std::string long_path = work + "/" + std::string(4095 - work.size() - 1, 'l');
    std::strcpy(target, long_path.c_str());
    EXPECT_EQ(transfer::copy_folder_with_progress(source, target, p, 0, "", ""), 11);
}

}  // namespace
