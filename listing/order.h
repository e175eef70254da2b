// Sort orders, entry filters and media classification shared by the
// listers (folder listing, network listing, search, file index).
#pragma once

#include <cstdint>
#include <span>

namespace listing {

// ---- natural name order -------------------------------------------------

// Version order of two names, each character compared after tolower (C
// locale): digit runs by value ("a9" < "a10"), runs with leading zeros as
// fractional parts. Negative, zero or positive like strcmp.
int natural_compare(const char *a, const char *b) noexcept;

// The descending form of a comparison result: 1 for negative, 0 for 0,
// -1 for positive (not plain negation).
constexpr int reverse_result(int r) noexcept { return r < 0 ? 1 : (r == 0 ? 0 : -1); }

// ---- entries and comparators --------------------------------------------

// An entry counts as a folder for ordering when bit value 4 of its type
// byte is set (directories, block devices and sockets alike).
constexpr bool sorts_as_folder(unsigned char d_type) noexcept { return (d_type & 4) != 0; }

// One entry as the comparators see it. The keys are filled once per
// listing, before sorting: size for the size orders (files), modification
// time for the date orders, label for the drive orders.
struct sort_entry {
    const char *name = "";
    const char *label = "";   // drive display name; "" for files, hidden names, NETWORK_SHARE
    int64_t size = 0;         // st_size, 0 when stat failed
    int32_t mtime = 0;        // st_mtime as signed 32-bit seconds, 0 when stat failed
    unsigned char d_type = 0;
};

enum class sort_kind : uint8_t {
    name_ascending,
    name_descending,
    size_ascending,
    size_descending,
    date_ascending,
    date_descending,
    drive_name_ascending,
    drive_name_descending,
};

int compare_name_ascending(const sort_entry &a, const sort_entry &b) noexcept;
int compare_name_descending(const sort_entry &a, const sort_entry &b) noexcept;
int compare_size_ascending(const sort_entry &a, const sort_entry &b) noexcept;
int compare_size_descending(const sort_entry &a, const sort_entry &b) noexcept;
int compare_date_ascending(const sort_entry &a, const sort_entry &b) noexcept;
int compare_date_descending(const sort_entry &a, const sort_entry &b) noexcept;
int compare_drive_name_ascending(const sort_entry &a, const sort_entry &b) noexcept;
int compare_drive_name_descending(const sort_entry &a, const sort_entry &b) noexcept;

using entry_comparator = int(const sort_entry &, const sort_entry &) noexcept;
entry_comparator *comparator_for(sort_kind kind) noexcept;

// The selection table of the local lister: a keyword forces name
// ascending; sortOrder 0/1 (and any value outside 1..5 as 0) use the drive
// orders at the top level with filter word "local".
sort_kind select_sort(int sort_order, bool top_level, const char *filter_word, bool has_keyword) noexcept;

// Which keys an order reads (the others need not be filled).
constexpr bool sort_needs_size(sort_kind k) noexcept {
    return k == sort_kind::size_ascending || k == sort_kind::size_descending;
}
constexpr bool sort_needs_time(sort_kind k) noexcept {
    return k == sort_kind::date_ascending || k == sort_kind::date_descending;
}
constexpr bool sort_needs_label(sort_kind k) noexcept {
    return k == sort_kind::drive_name_ascending || k == sort_kind::drive_name_descending;
}

// Stable merge sort of entry pointers (safe whatever the comparator
// answers). Entries that compare equal keep their reading order.
void sort_entries(std::span<sort_entry *> entries, sort_kind kind) noexcept;

// ---- filters ------------------------------------------------------------

// Keyword filter: the keyword occurs in the name, without regard to case.
bool keyword_matches(const char *name, const char *keyword) noexcept;

// "$RECYCLE.BIN", "recycler", "recycled" (any case), "pvx_database",
// "System Volume Information", "@eaDir", "lost+found" (exact).
bool is_system_folder(const char *name) noexcept;

// Hidden: a name beginning with ".".
constexpr bool is_hidden_name(const char *name) noexcept { return name != nullptr && name[0] == '.'; }

// ---- media type words -----------------------------------------------------

// MIME prefix a media filter word selects: "music" -> "audio", "photo" ->
// "image", any other word itself, null -> "".
const char *mime_prefix_for_filter(const char *filter_word) noexcept;

// filter= value of the network client: video 1, music 2, photo 3,
// torrent 4, others 5, anything else 0 (case-sensitive).
int network_filter_code(const char *filter_word) noexcept;

// A file's MIME type against a prefix: begins with it, without regard to
// case, over the prefix's length; an empty prefix passes every known type.
bool mime_passes_filter(const char *mime, const char *prefix) noexcept;

// Type word of a local file by its MIME type ("photo", "music",
// "video_iso", "video", "phf", "torrent", "others").
const char *type_word_for_mime(const char *mime) noexcept;

// Type word of a folder holding a disc structure: kinds 1 and 3 "bd_rip",
// 2 and 4 "dvd_rip", anything else "video".
const char *type_word_for_disc_kind(unsigned int kind) noexcept;

// ---- search classification ----------------------------------------------

struct search_filter {
    const char *keyword = nullptr;      // null or "" for none
    const char *filter_word = nullptr;  // media filter word, null or "" for none
    bool want_folders = true;
    bool want_files = true;
};

struct search_candidate {
    const char *name;  // base name
    const char *path;  // full path
    bool is_start;     // the folder the search starts from
    bool is_folder;
    bool is_regular;   // a regular file
};

enum class search_verdict : uint8_t {
    skip_subtree,  // hidden or system folder: neither listed nor descended into
    pass_over,     // not listed (a folder is still descended into)
    list_file,     // listed and counted as a file (type_word set)
    list_folder,   // listed and counted as a folder
};

struct search_result {
    search_verdict verdict = search_verdict::pass_over;
    const char *type_word = nullptr;  // for list_file: by MIME type or disc kind
    unsigned int disc_kind = 0;       // kind of a disc-structure folder (counted as a file)
};

// Classification of one entry of a recursive search, in the search's order
// of tests (hidden, start folder, keyword, system folder, disc structure,
// folder, regular file with the MIME filter). The MIME table must be in
// lookup order (storage::sort_mime_table).
search_result classify_search_entry(const search_candidate &entry, const search_filter &filter) noexcept;

}  // namespace listing
