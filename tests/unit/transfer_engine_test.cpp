// The copy engine: report steps and points, the 4 GiB rule, refusals, tails, unique names, the folder walk, the
// delete walk's errors, the time-left estimate and the event lines' edge cases.
#include <cerrno>
#include <random>

#include "test_util.h"
#include "transfer/batch.h"
#include "transfer/delete.h"
#include "transfer/engine.h"
#include "transfer/progress.h"

namespace {

constexpr long long MiB = 1048576, GiB = 1073741824;
const std::string work = "/tmp/engine_test";

std::string field(const std::string &line, const std::string &tag) {
    std::size_t open = line.find("<" + tag + ">"), from = open + tag.size() + 2;
    return open == std::string::npos ? "" : line.substr(from, line.find("</" + tag + ">") - from);
}

struct Engine : ::testing::Test {
    tu::drive_tree t{work};
    void SetUp() override { gettimeofday(&start_copy_time, nullptr); }
    static transfer::TransferProgress progress_for(long long size) {
        transfer::TransferProgress p;
        p.item = p.total = p.permission_kind = 1;
        p.item_total = p.whole_total = size;
        p.step = transfer::report_step(size);
        return p;
    }
    int copy(const std::string &from, const std::string &to, transfer::TransferProgress &p) {
        return base::to_host(transfer::copy_file_with_progress((work + from).c_str(), (work + to).c_str(), p, 0, "Stick", "Disk"));
    }
};

TEST(EngineRules, FourGibLimitReportStepsThresholdsAndDeleteErrors) {
    struct fit { int32_t kind; long long size; bool fits; };
    for (fit r : {fit{2, 4 * GiB - 1, true}, {2, 4 * GiB, false}, {2, 8 * GiB + 5, false}, {1, 4 * GiB, true},
                  {0, 4 * GiB, true}})
        EXPECT_EQ(transfer::fits_destination(r.kind, r.size), r.fits) << r.kind << " " << r.size;
    struct step { long long total, step; };
    for (step r : {step{GiB + 1, (GiB + 1) / 100}, {GiB, 16 * MiB}, {31 * MiB + 1, 16 * MiB}, {31 * MiB, 0}, {-1, 0}})
        EXPECT_EQ(transfer::report_step(r.total), r.step) << r.total;
    transfer::TransferProgress p;
    p.item_total = 100;
    p.step = 30;
    EXPECT_EQ(transfer::report_threshold(p, 100), 70);  // next boundary 30 bytes in
    p.item_done = 50;  // a folder's second file, 10 bytes short of the boundary at 60
    EXPECT_EQ(transfer::report_threshold(p, 40), 30);
    EXPECT_EQ(transfer::report_threshold(p, 10), 0);  // ends on the boundary: no report
    p.step = 0;
    EXPECT_EQ(transfer::report_threshold(p, 40), 0);
    // The delete walk's errors: those that stop it, those it goes on after (0).
    struct del { int error; int32_t status; };
    for (del r : {del{ENOENT, 12}, {EACCES, 402}, {ETXTBSY, 2}, {EBUSY, 2}, {EROFS, 60}, {EEXIST, 60}, {ENOTEMPTY, 0},
                  {EPERM, 0}, {EIO, 0}, {ENOTDIR, 0}})
        EXPECT_EQ(transfer::delete_status_for(r.error), r.status) << r.error;
}

TEST_F(Engine, ReportPointsTailsEmptyFilesAndRefusals) {
    tu::event_pipe pipe;
    tu::make_sparse(work + "/forty", 40 * MiB);
    auto p = progress_for(40 * MiB);
    EXPECT_EQ(copy("/forty", "/forty.out", p), 0);
    EXPECT_EQ(p.item_done, 40 * MiB);
    EXPECT_EQ(p.whole_done, 40 * MiB);
    tu::make_sparse(work + "/twenty", 20 * MiB);
    auto q = progress_for(20 * MiB);
    q.step = 5 * MiB;  // a twentieth: the count of steps is the percent field
    EXPECT_EQ(copy("/twenty", "/twenty.out", q), 0);
    std::string content(MiB + 1234, '\0');
    std::mt19937 random(7);
    for (auto &c : content) c = static_cast<char>(random());
    tu::write_file(work + "/tail", content);
    auto r = progress_for(static_cast<long long>(content.size()));
    EXPECT_EQ(copy("/tail", "/tail.out", r), 0);
    EXPECT_EQ(tu::read_file(work + "/tail.out"), content);
    tu::write_file(work + "/empty", "");
    auto e = progress_for(0);
    e.item_done = 5;
    EXPECT_EQ(copy("/empty", "/empty.out", e), 0);
    EXPECT_TRUE(tu::exists(work + "/empty.out"));
    EXPECT_EQ(e.item_done, 5);  // not touched, no event
    auto m = progress_for(10);
    EXPECT_EQ(copy("/missing", "/m.out", m), 4);
    EXPECT_EQ(copy("/tail", "/no/such/dir", m), 27);
    std::string seen;
    for (const auto &l : pipe.wait_for("<status>27</status>"))
        seen += field(l, "filename") + ":" + field(l, "percent") + ":" + field(l, "status") + " ";
    EXPECT_EQ(seen, "forty:0:0 forty:40:0 forty:80:0 forty:100:0 twenty:0:0 twenty:1:0 twenty:2:0 twenty:3:0 "
                    "twenty:100:0 tail:0:0 tail:100:0 missing:0:4 tail:0:27 ");
}

TEST_F(Engine, UniqueTargetNamesAndFolderTrees) {
    tu::event_pipe pipe;
    char folder[4096] = "/tmp/engine_test/", out[4096];
    auto target_of = [&](const std::string &name, bool unique) {
        return transfer::make_target_path(out, folder, name.c_str(), unique) ? std::string(out) : "(too long)";
    };
    EXPECT_EQ(target_of("/x.avi", true), work + "/x.avi");
    EXPECT_STREQ(folder, "/tmp/engine_test");  // the caller's folder lost its "/"
    tu::write_file(work + "/x.avi", "1");
    EXPECT_EQ(target_of("/x.avi", true), work + "/copy_1_of_x.avi");
    tu::write_file(out, "2");
    EXPECT_EQ(target_of("x.avi", true), work + "/copy_2_of_x.avi");
    EXPECT_EQ(target_of("/x.avi", false), work + "/x.avi");
    EXPECT_EQ(target_of("/" + std::string(4090, 'n'), false), "(too long)");
    EXPECT_STREQ(transfer::base_name("/a/b/"), "");
    for (auto [f, text] : {std::pair{"a.txt", "aa"}, {"b.txt", "bbb"}, {"sub/c.txt", "c"}, {"sub/deeper/d.txt", "dddd"},
                           {".hidden", "h"}})
        tu::write_file(work + "/src/" + f, text);
    tu::fs::create_directory(work + "/dst");
    base::path_buffer source, target;
    std::strcpy(source, (work + "/src").c_str());
    std::strcpy(target, (work + "/dst/src").c_str());
    auto p = progress_for(2 + 3 + 1 + 4 + 1 + 3 * 4096);
    EXPECT_EQ(transfer::copy_folder_with_progress(source, target, p, 0, "", ""), 0);
    EXPECT_EQ(p.item_done, p.item_total);
    EXPECT_STREQ(source, (work + "/src/").c_str());  // restored, with its "/"
    EXPECT_EQ(tu::read_file(work + "/dst/src/sub/deeper/d.txt"), "dddd");
    EXPECT_EQ(tu::read_file(work + "/dst/src/.hidden"), "h");
    // From the last entry: files in reverse natural order, then folders; only the first file sends a start event.
    std::string order;
    for (const auto &l : pipe.wait_for("<filename>d.txt</filename>")) order += field(l, "filename") + " ";
    EXPECT_EQ(order, "b.txt b.txt a.txt .hidden c.txt d.txt ");
    std::strcpy(source, (work + "/src").c_str());
    EXPECT_EQ(transfer::copy_folder_with_progress(source, target, p, 0, "", ""), 4);  // exists already
    std::strcpy(target, (work + "/" + std::string(4095 - work.size() - 1, 'l')).c_str());
    EXPECT_EQ(transfer::copy_folder_with_progress(source, target, p, 0, "", ""), 11);
    std::string deep = work + "/deep";  // 65 levels below the copied folder: refused as a too long path is
    for (int level = 0; level < 65; ++level) tu::fs::create_directories(deep += "/d");
    std::strcpy(source, (work + "/deep").c_str()), std::strcpy(target, (work + "/deep.out").c_str());
    EXPECT_EQ(transfer::copy_folder_with_progress(source, target, p, 0, "", ""), 11);
}

TEST(TimeLeft, ThirtyTwoBitMicrosecondsAndCeiling) {
    struct row { long start_s, start_us, now_s, now_us; long long done, total; int32_t expected; };
    const row rows[] = {
        {100, 0, 110, 0, 1, 2, 10}, {100, 0, 110, 0, 3, 4, 4},  // 10 s for half: 10 s left; 3.33 s rounds up
        {100, 0, 110, 0, 4, 4, 0}, {100, 0, 110, 0, 0, 4, 0},   // done; nothing done yet
        {100, 900000, 101, 100000, 1, 3, 1},   // 0.2 s * 2: rounds up to 1
        {0, 0, 2147, 0, 1, 2, 2147},           // the last whole second before the wrap
        {0, 0, 2148, 0, 1, 2, -140464757},     // wrapped: meaningless, but this exact value
    };
    for (const row &r : rows) {
        timeval start{r.start_s, r.start_us}, now{r.now_s, r.now_us};
        EXPECT_EQ(transfer::time_left_from(start, now, r.done, r.total), r.expected)
            << r.now_s << " " << r.done << "/" << r.total;
    }
}

// Whole lines are compared end to end; here clamped fields, an unknown kind, no pipe or no reader.
TEST(TransferEvent, ClampsAndNoReader) {
    {
        tu::event_pipe pipe;
        transfer::post_transfer_event(1, "b", "", "Disk", 2, 3, -5, -1, 0, base::from_host(12));
        transfer::post_transfer_event(7, "", "", "", 0, 0, 100, 101, 0, base::from_host(4));
        const auto lines = pipe.wait_for("<status>4</status>");
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0], "swf=<event>move_from_list</event><filename>b</filename><from></from><to>Disk</to><item>2</item>"
                            "<total>3</total><percent>0</percent><whole>0</whole><time_left>0</time_left><status>12</status>\n");
        EXPECT_EQ(lines[1].substr(0, 34), "swf=<event>copy_from_list</event><");
    }
    transfer::post_transfer_event(0, "x", "", "", 0, 0, 0, 0, 0, base::from_host(0));
    EXPECT_FALSE(tu::exists(tu::event_pipe::path));
    ASSERT_EQ(::mkfifo(tu::event_pipe::path, 0600), 0);
    auto before = std::chrono::steady_clock::now();
    transfer::post_transfer_event(0, "x", "", "", 0, 0, 0, 0, 0, base::from_host(0));
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    ::unlink(tu::event_pipe::path);
}

}  // namespace
