// The video file hash used to look up subtitles, and the folder test that
// goes with it.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "platform/host_api.h"

extern "C" {

// Size of the file plus the sums of its first 64 KiB and of a 64 KiB tail
// taken as little-endian 64-bit words; 0 when the file cannot be opened.
uint64_t compute_hash_for_file(const char *path) noexcept;

// 1 when the path names a directory (links followed), else 0.
int is_path_folder(const char *path) noexcept;

}  // extern "C"

namespace media {

// Where the tail block starts: the 32-bit seek offset of the low 32 bits of
// the size less 65536, or -1 when that seek fails (negative offset).
int64_t hash_tail_offset(uint64_t size) noexcept;

// "calculate_user_storage_file_hash" file: answers `hash`.
base::rc calculate_user_storage_file_hash(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

}  // namespace media
