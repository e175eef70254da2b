// Which entries a listing shows: keyword, hidden and system names, media
// filter words.
#pragma once

namespace listing {

// Keyword filter: the keyword occurs in the name, without regard to case.
bool keyword_matches(const char *name, const char *keyword) noexcept;

// "$RECYCLE.BIN", "recycler", "recycled" (any case), "pvx_database",
// "System Volume Information", "@eaDir", "lost+found" (exact).
bool is_system_folder(const char *name) noexcept;

// Hidden: a name beginning with ".".
constexpr bool is_hidden_name(const char *name) noexcept { return name != nullptr && name[0] == '.'; }

// MIME prefix a media filter word selects: "music" -> "audio", "photo" ->
// "image", any other word itself, null -> "".
const char *mime_prefix_for_filter(const char *filter_word) noexcept;

// filter= value of the network client: video 1, music 2, photo 3,
// torrent 4, others 5, anything else 0 (case-sensitive).
int network_filter_code(const char *filter_word) noexcept;

// A file's MIME type against a prefix: begins with it, without regard to
// case, over the prefix's length; an empty prefix passes every known type.
bool mime_passes_filter(const char *mime, const char *prefix) noexcept;

}  // namespace listing
