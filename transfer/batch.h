// The batch commands: copy, move or delete every selected entry on a
// detached worker thread that reports on the framework pipe.
#pragma once

#include <cstdint>

#include "base/owners.h"
#include "base/result.h"
#include "platform/host_api.h"

namespace transfer {

// copy_user_storage_file_from_list (move 0) and
// move_user_storage_file_from_list (move 1): argv[1] destination folder.
// 0 when the batch was started, 8, 60 or 4.
base::rc copy_user_storage_file_from_list(VantorXmlNode *response_slot, CommandRequest *request,
                                         int move) noexcept;

// Starts a batch: takes the batch lock into `lock` (a member of job, so
// the thread holds it), takes the selection and runs body(job) on a
// detached thread, which owns job from then on. 0; 2 while another batch
// runs; 4 when the lock or the thread cannot be had (the selection is then
// given back and job is still the caller's).
base::rc start_batch(base::unique_fd &lock, void *(*body)(void *), void *job) noexcept;

// Report step of an entry of item_total bytes: a hundredth above 1 GiB,
// 16 MiB above 31 MiB, else 0 (start and end only).
constexpr int64_t report_step(int64_t item_total) noexcept {
    if (item_total > 1073741824) return item_total / 100;
    if (item_total > 32505856) return 16777216;
    return 0;
}

}  // namespace transfer
