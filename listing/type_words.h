// The type word a listing gives a file or a disc-structure folder.
#pragma once

namespace listing {

// Type word of a local file by its MIME type ("photo", "music",
// "video_iso", "video", "phf", "torrent", "others").
const char *type_word_for_mime(const char *mime) noexcept;

// Type word of a folder holding a disc structure: kinds 1 and 3 "bd_rip",
// 2 and 4 "dvd_rip", anything else "video".
const char *type_word_for_disc_kind(unsigned int kind) noexcept;

}  // namespace listing
