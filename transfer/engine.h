// The copy engine: one file or one folder tree from a source to a target,
// or a move by renaming, reporting on the framework pipe while it works.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "base/result.h"
#include "base/text.h"
#include "transfer/progress.h"

namespace transfer {

// Owner and group of every file and folder a batch writes.
inline constexpr unsigned batch_owner = 1001;

inline constexpr std::size_t copy_buffer_size = 1048576;  // 1 MiB
inline constexpr std::size_t copy_buffer_min = 16384;     // smallest buffer tried
inline constexpr std::size_t copy_alignment = 512;
inline constexpr int64_t four_gib = int64_t{1} << 32;

// The buffers and reader threads of one batch, reused by every file it
// copies: up to four aligned buffers of copy_buffer_size (halved down to
// copy_buffer_min when memory is short), two threads reading ahead into
// them while the batch thread writes, and the targets written through the
// cache whose pages are dropped once written back. Made on first use; one
// per batch thread, never shared.
struct ring_state;
void release_ring_state(ring_state *state) noexcept;
struct copy_ring {
    ring_state *state = nullptr;
    copy_ring() noexcept = default;
    copy_ring(const copy_ring &) = delete;
    copy_ring &operator=(const copy_ring &) = delete;
    ~copy_ring() { release_ring_state(state); }
};
// Stops the threads, drops the written-back pages of cached targets and
// frees the buffers (the destructor does the same).
inline void finish_copy_ring(copy_ring &ring) noexcept {
    release_ring_state(ring.state);
    ring.state = nullptr;
}

// Copies one regular file. 0, 4, 27, 29 or 30. Without a ring the call
// makes its own.
base::rc copy_file_with_progress(const char *source, const char *target, TransferProgress &progress,
                                uint32_t operation, const char *from, const char *to,
                                copy_ring *ring = nullptr) noexcept;

// Copies a folder tree; source and target are 4096-byte working buffers,
// extended and restored in place. 0, 4, 11, or a failing file's code.
base::rc copy_folder_with_progress(base::path_buffer &source, base::path_buffer &target,
                                  TransferProgress &progress, uint32_t operation, const char *from,
                                  const char *to, copy_ring *ring = nullptr) noexcept;

// Moves within one drive with "mv". 0, 4 or 12.
base::rc move_by_rename(const char *source, const char *target, TransferProgress &progress, const char *from,
                       const char *to) noexcept;

// Target path of an entry: folder (one trailing "/" removed from the
// caller's buffer), "/" unless name begins with one, name; with unique set
// and that path taken, "<folder>/copy_<n>_of_<name>" for the first free n.
// False when the result does not fit.
bool make_target_path(std::span<char> out, char *folder, const char *name, bool unique) noexcept;

// Text after the last "/", or "" when there is none.
const char *base_name(const char *path) noexcept;

// Whether a file of size bytes may go to a destination of this permission
// kind (kind 2 holds no file of 4 GiB or more).
constexpr bool fits_destination(int32_t permission_kind, int64_t size) noexcept {
    return !(permission_kind == 2 && (static_cast<uint64_t>(size) >> 32) != 0);
}

// The bytes of the file still unread below which the next report is due
// (0: none) for a file of `size` bytes starting at the item's current count.
constexpr int64_t report_threshold(const TransferProgress &p, int64_t size) noexcept {
    if (p.item_total <= 0 || p.step <= 0) return 0;
    const int64_t steps_done = p.item_done / p.step;
    const int64_t distance = (steps_done + 1) * p.step - p.item_done;
    return distance < size ? size - distance : 0;
}

}  // namespace transfer
