// The selection file: one `SelectionRecord` per line, "1" or "0", "|", the
// storage label, "|", the path, a line feed. Selection requests add and flag
// records; the batch threads read the records flagged "1" and flag each one
// "0" once it is done.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "base/owners.h"
#include "base/result.h"
#include "platform/host_api.h"

namespace transfer {

inline constexpr const char *selection_file = "/tmp/fslist";
// A batch works on a private copy of the selection, taken in one rename
// when it starts, and holds an flock on the lock file while it runs (the
// kernel drops it with the process, so a crash never leaves it held).
inline constexpr const char *batch_selection_file = "/tmp/fslist.batch";
inline constexpr const char *batch_lock_file = "/tmp/fslist.lock";
inline constexpr int search_line_limit = 4100;  // line limit while searching a path
inline constexpr int count_line_limit = 4098;   // line limit of the counters and readers

// -1 when fd is negative or no record holds path (by the suffix rule: the
// first occurrence of path after the flag and the first "|" must end the
// line); otherwise 1 if the record is flagged "1", else 0, with the file
// offset left at the first byte of that record.
int find_selection_record(int fd, const char *path) noexcept;

// Records flagged "1" from the current offset to the end (0 for a negative
// descriptor).
int count_selected_records(int fd) noexcept;

// Sum of filesize64 of every selected record's path from the current offset.
int64_t sum_selected_sizes(int fd) noexcept;

// Flags the record that was just read by get_filename as done: its flag byte
// lies path length + label length + 4 bytes before the reading offset and is
// overwritten with "0" through a second descriptor. The reading offset is
// left where it was (at the next record).
void mark_record_done(int fd, std::string_view path, std::string_view label) noexcept;

// The batch lock, taken without waiting; invalid when another batch holds
// it (*busy set) or the lock file cannot be opened.
base::unique_fd lock_batch(bool *busy) noexcept;

// Under the batch lock: puts back what an earlier, interrupted batch left,
// then moves the selection to the batch's private file. False when there is
// no selection (the private file is then absent).
bool take_selection() noexcept;

// Under the batch lock, at the end of a batch: with keep, the private file
// (finished records flagged "0", the others still "1") becomes the
// selection again, in front of any selection made while the batch ran;
// without keep it is removed.
void return_selection(bool keep) noexcept;

// True when a record's path may be acted on by a batch: absolute (a record
// forged by a damaged file is not) and, with the confinement switch on,
// inside the drives root.
bool batch_may_use(const char *path) noexcept;

// select_user_storage_file_to_list: argv[1] path, argv[2] "select",
// "deselect" or "deselect_all". 0, 4 (the file could not be removed) or 8
// (also for a path holding a line feed or a carriage return, which would
// forge records, and with the confinement switch on for a path outside the
// drives root).
base::rc select_user_storage_file_to_list(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

}  // namespace transfer

// Reads the next record flagged "1": its path into path (at most size - 1
// characters) and its label into label (4096 bytes). 1 when a record was
// read, 0 at the end or for a negative descriptor.
extern "C" int get_filename(int fd, char *path, int size, char *label) noexcept;
