// Progress of a batch and the event lines that report it on the framework
// pipe.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "base/result.h"

namespace transfer {

inline constexpr const char *framework_pipe = "/tmp/vtr_framework_pipe";

// The event operation: the copy and move lines, and the delete line.
enum event_operation : uint32_t { op_copy = 0, op_move = 1, op_delete = 3 };

struct TransferProgress {
    int32_t item = 0;             // entry being transferred, from 1
    int32_t total = 0;            // selected entries at the start of the batch
    int32_t permission_kind = 0;  // write_permission of the destination (2: no files of 4 GiB)
    int64_t step = 0;             // report step of the current entry (0: start and end only)
    int64_t item_done = 0;
    int64_t item_total = 0;
    int64_t whole_done = 0;
    int64_t whole_total = 0;
};

// Writes one event line to the framework pipe, or drops it when the pipe is
// missing or nobody reads it. Operation 3 writes the delete line (without
// to, percent and time_left); 1 the move line; anything else the copy line.
// Negative percent and whole values are sent as 0.
void post_transfer_event(uint32_t operation, const char *filename, const char *from, const char *to,
                         int32_t item, int32_t total, int32_t percent, int32_t whole, int32_t time_left,
                         base::rc status) noexcept;

// Seconds left for the batch from the bytes done so far and the time since
// start_copy_time (the elapsed microseconds are a signed 32-bit count).
// Stores the current time in now_copy_time.
int32_t compute_time_left(int64_t done, int64_t total) noexcept;

// The pure part of compute_time_left.
int32_t time_left_from(const timeval &start, const timeval &now, int64_t done, int64_t total) noexcept;

// value * 100 / divisor with 0 for a zero divisor (integer division).
constexpr int32_t percent_of(int64_t value, int64_t divisor) noexcept {
    return divisor == 0 ? 0 : static_cast<int32_t>(value * 100 / divisor);
}

}  // namespace transfer

extern "C" {
extern struct timeval start_copy_time;  // start of the latest batch
extern struct timeval now_copy_time;    // moment of the latest time-left estimate
}
