// The share list: one page of a local folder, or of the top level of
// drives, the optical disc and the network shares, as a "fileList" answer.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "platform/host_api.h"

namespace listing {

struct listing_key;

// One page of a local folder or of the top level, as a "fileList" answer.
struct share_list_request {
    const char *dir = nullptr;  // absolute local path (the drives root or below, no trailing "/")
    uint64_t start = 0;         // accepted entries passed over
    uint64_t count = 0;         // most entries emitted
    bool show_folders = true;
    bool show_files = true;
    bool show_details = false;
    // Media filter word, a MIME prefix, or at the top level "local"/"network".
    const char *type_filter = nullptr;
    bool top_level = false;
    int sort_order = 0;                   // 0..5 (others as 0)
    const char *search_text = nullptr;    // only names holding it (any case), by name ascending
    const listing_key *cache_key = nullptr;  // append the page to the listing cache under this key
    bool want_pvx = false;                // at the top level, tell which drives hold a media library
};

// Appends the page under response: ok, failure when the folder could not
// be read, io when memory ran out.
base::rc share_list(VantorXmlNode response, const share_list_request &request) noexcept;

}  // namespace listing

extern "C" {

// The share list for C callers: `listing::share_list` with positional
// arguments. response: the slot holding the element under which the answer
// goes; write_cache with cache_header (a 300-byte listing key) caches the
// page. 0 when the folder could be read, 1 when it could not.
int32_t file_operation_share_list_file(VantorXmlNode *response, const char *dir, uint64_t start, uint64_t count,
                                       int show_folders, int show_files, int show_details, const char *type_filter,
                                       int top_level, int sort_order, const char *search_text, int write_cache,
                                       const void *cache_header, int want_pvx) noexcept;

}  // extern "C"
