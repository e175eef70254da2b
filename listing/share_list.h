// The share list: one page of a local folder, or of the top level of
// drives, the optical disc and the network shares, as a "fileList" answer.
#pragma once

#include <cstdint>

#include "platform/host_api.h"

extern "C" {

// response: the slot holding the element under which "fileList" and the
// counters are appended. dir: absolute local path (the drives root or
// below, no trailing "/"). start/count: accepted entries passed over, most
// entries emitted. type_filter: media filter word, a MIME prefix, or at the
// top level "local"/"network". sort_order 0..5 (others as 0). search_text:
// null, or only names holding it (any case), by name ascending.
// write_cache with cache_header (a 300-byte listing key): append the page to
// the listing cache. want_pvx: at the top level, tell which drives hold a
// media library. 0 when the folder could be read, 1 when it could not.
int32_t file_operation_share_list_file(VantorXmlNode *response, const char *dir, uint64_t start, uint64_t count,
                                       int show_folders, int show_files, int show_details, const char *type_filter,
                                       int top_level, int sort_order, const char *search_text, int write_cache,
                                       const void *cache_header, int want_pvx) noexcept;

}  // extern "C"
