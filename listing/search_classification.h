// What the deep search does with one entry of the tree it walks.
#pragma once

#include <cstdint>

namespace listing {

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
