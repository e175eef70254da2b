// Helpers on open streams shared by the file commands.
#pragma once

#include <cstdio>

namespace storage {

// Size of the stream plus one (room for a terminating NUL); the stream is
// left at its start.
long long stream_size_plus_one(FILE *stream) noexcept;

}  // namespace storage
