#include "transfer/progress.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "base/export.h"
#include "base/io.h"
#include "base/owners.h"
#include "base/text.h"

extern "C" {
FILEOP_EXPORT struct timeval start_copy_time = {0, 0};
FILEOP_EXPORT struct timeval now_copy_time = {0, 0};
}

namespace transfer {
namespace {

// Filename, two labels and the fixed part of the line.
constexpr std::size_t event_line_max = base::path_max * 3 + 512;

int32_t not_negative(int32_t v) noexcept { return v < 0 ? 0 : v; }

}  // namespace

void post_transfer_event(uint32_t operation, const char *filename, const char *from, const char *to,
                         int32_t item, int32_t total, int32_t percent, int32_t whole, int32_t time_left,
                         base::rc status) noexcept {
    // Non-blocking open: a missing pipe or one without a reader drops the
    // event instead of holding up the batch.
    base::unique_fd pipe(::open(framework_pipe, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (!pipe.valid()) return;
    int flags = ::fcntl(pipe.get(), F_GETFL);
    if (flags >= 0) ::fcntl(pipe.get(), F_SETFL, flags & ~O_NONBLOCK);

    char line[event_line_max];
    bool fits;
    if (filename == nullptr) filename = "";
    if (from == nullptr) from = "";
    if (to == nullptr) to = "";
    if (operation == op_delete) {
        fits = base::format_into(line,
                                   "swf=<event>delete_from_list</event><filename>%s</filename><from>%s</from>"
                                   "<item>%d</item><total>%d</total><whole>%d</whole><status>%d</status>\n",
                                   filename, from, item, total, not_negative(whole), base::to_host(status));
    } else {
        fits = base::format_into(
            line,
            "swf=<event>%s_from_list</event><filename>%s</filename><from>%s</from><to>%s</to>"
            "<item>%d</item><total>%d</total><percent>%d</percent><whole>%d</whole>"
            "<time_left>%d</time_left><status>%d</status>\n",
            operation == op_move ? "move" : "copy", filename, from, to, item, total, not_negative(percent),
            not_negative(whole), time_left, base::to_host(status));
    }
    if (!fits) return;  // cannot happen with path-sized fields
    (void)base::write_all(pipe.get(), line, std::strlen(line));
}

int32_t time_left_from(const timeval &start, const timeval &now, int64_t done, int64_t total) noexcept {
    // Signed 32-bit microseconds, wrapping after about 35 minutes as the
    // player always did (computed unsigned, so the wrap is defined).
    uint32_t micros = static_cast<uint32_t>(static_cast<int64_t>(now.tv_sec) - start.tv_sec) * 1000000u +
                      static_cast<uint32_t>(static_cast<int64_t>(now.tv_usec) - start.tv_usec);
    const int32_t elapsed = static_cast<int32_t>(micros);
    const uint64_t divisor = static_cast<uint64_t>(done) * 1000000u;
    if (divisor == 0) return 0;
    const uint64_t product = static_cast<uint64_t>(static_cast<int64_t>(elapsed)) * static_cast<uint64_t>(total - done);
    uint64_t seconds = product / divisor;
    if (product % divisor != 0) ++seconds;
    return static_cast<int32_t>(seconds);
}

int32_t compute_time_left(int64_t done, int64_t total) noexcept {
    timeval now{};
    ::gettimeofday(&now, nullptr);
    now_copy_time = now;
    return time_left_from(start_copy_time, now, done, total);
}

}  // namespace transfer
