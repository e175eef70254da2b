// The search command: names holding a keyword in one folder (through the
// share list), in a whole folder tree (the deep search over the tree
// walker), or on a network share (through the network client).
#pragma once

#include <cstdint>

#include "base/result.h"
#include "listing/walker.h"
#include "platform/host_api.h"

namespace listing {

// "search_user_storage_file" (argc exactly 10): argv[1] folder, [2] offset,
// [3] range, [4] list folders, [5] list files, [6] details, [7] media filter
// word, [8] keyword, [9] search subfolders.
base::rc search_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

// What a deep search is asked for.
struct search_request {
    uint64_t offset = 0;
    uint64_t range = 0;  // already made 99999 when offset and range were both 0
    bool want_folders = true;
    bool want_files = true;
    bool with_details = true;
    const char *filter_word = "";
    const char *keyword = "";
};

// The walk context of one deep search; each search has its own, handed to
// the walk callback as its context pointer.
struct walk_context {
    uint64_t skip;       // matches still to pass over before the page
    uint64_t remaining;  // matches still to write into the page
    int want_folders;
    int want_files;
    int with_details;
    const char *filter_word;
    const char *keyword;
    VantorXmlNode file_list;
    int written;
    int available_file;
    int available_folder;
    int spare;
};

// The walk callback of the deep search: the search classification applied to
// one entry; walk_stop when the context is null.
int search_visit(walk_entry &entry, void *context) noexcept;

// Deep search of the tree at full_path (an absolute local path), appending
// "fileList" and the counters under response. 0, 19 when a folder handle went
// stale during the walk, 4 for any other failure. `hooks` is a seam for tests.
base::rc deep_search(VantorXmlNode response, const char *full_path, const search_request &request,
                    const walk_hooks *hooks = nullptr) noexcept;

}  // namespace listing
