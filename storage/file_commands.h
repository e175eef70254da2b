// Single files in user storage: create an empty file, write text into one,
// read a byte range of one, describe one.
#pragma once

#include <cstdint>
#include <cstdio>

#include "base/result.h"
#include "platform/host_api.h"

namespace storage {

// argv[1] file path. No answer elements.
base::rc create_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
// argv[1] file path, argv[2] "false" overwrites (else appends), argv[3] text,
// argv[4] byte count (0 = all of it). No answer elements.
base::rc write_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
// argv[1] file path, argv[2] start offset, argv[3] byte count (0 = to the
// end). Answers one "content" element.
base::rc read_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
// argv[1] file path. Answers "fileSize", "mimeType", "name", for pictures
// "width" and "height", then "permission".
base::rc get_user_storage_file_info(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

// The span a read covers, from the counts as the client sent them (unsigned
// 32-bit) and the file size plus one. `buffer_size` is the design's buffer
// size (one more than the most bytes read); it never exceeds what the file
// can deliver from `offset` on, so a huge count allocates nothing huge.
struct read_span {
    uint64_t offset;
    uint64_t buffer_size;  // >= 1; bytes to read = buffer_size - 1
};
read_span plan_read(uint32_t offset, uint32_t count, uint64_t total) noexcept;

// The size of an open file plus one (room for a terminating NUL), as the
// reads of user and app storage take it; the stream is left at its start.
long long stream_size_plus_one(FILE *stream) noexcept;

// Bytes of `content_length` that a write with the client's count stores.
uint64_t write_length(uint32_t count, uint64_t content_length) noexcept;

// " read", " write", " execute" for the owner's bits of a file mode, in that
// order; the empty text when no owner bit is set. `out` holds at least 32.
void owner_permission_text(unsigned mode, char (&out)[32]) noexcept;

}  // namespace storage
