// The time-left estimate's arithmetic and the event lines as the pipe reader sees them.
#include "test_util.h"
#include "transfer/progress.h"

namespace {

using namespace tu;

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

TEST(TransferEvent, LinesAsTheReaderSeesThem) {
    event_pipe pipe;
    transfer::post_transfer_event(0, "a.avi", "Stick", "Disk", 1, 3, 40, 13, 7, base::from_host(0));
    transfer::post_transfer_event(1, "b", "", "Disk", 2, 3, -5, -1, 0, base::from_host(12));
    transfer::post_transfer_event(7, "", "", "", 0, 0, 100, 101, 0, base::from_host(4));
    transfer::post_transfer_event(3, "c.avi", "Stick", "ignored", 1, 2, 99, 50, 99, base::from_host(402));
    const auto lines = pipe.wait_for("<status>402</status>");
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0],
              "swf=<event>copy_from_list</event><filename>a.avi</filename><from>Stick</from><to>Disk</to>"
              "<item>1</item><total>3</total><percent>40</percent><whole>13</whole><time_left>7</time_left>"
              "<status>0</status>\n");
    EXPECT_EQ(lines[1],
              "swf=<event>move_from_list</event><filename>b</filename><from></from><to>Disk</to>"
              "<item>2</item><total>3</total><percent>0</percent><whole>0</whole><time_left>0</time_left>"
              "<status>12</status>\n");
    EXPECT_EQ(lines[2].substr(0, 34), "swf=<event>copy_from_list</event><");
    EXPECT_EQ(lines[3],
              "swf=<event>delete_from_list</event><filename>c.avi</filename><from>Stick</from>"
              "<item>1</item><total>2</total><whole>50</whole><status>402</status>\n");
}

TEST(TransferEvent, DroppedWithoutPipeOrReader) {
    ::unlink(event_pipe::path);
    transfer::post_transfer_event(0, "x", "", "", 0, 0, 0, 0, 0, base::from_host(0));
    EXPECT_FALSE(exists(event_pipe::path));  // never created by the writer
    ASSERT_EQ(::mkfifo(event_pipe::path, 0600), 0);
    auto before = std::chrono::steady_clock::now();
    transfer::post_transfer_event(0, "x", "", "", 0, 0, 0, 0, 0, base::from_host(0));  // nobody reads: must not block
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    ::unlink(event_pipe::path);
}

}  // namespace
