// The deep search: the tree walk behind a search with subfolders, with the
// walker's seams open for tests and benchmarks.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "listing/walker.h"
#include "platform/host_api.h"

namespace listing {

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

// Deep search of the tree at full_path (an absolute local path), appending
// "fileList" and the counters under response. 0, 19 when a folder handle went
// stale during the walk, 4 for any other failure. `hooks` is a seam for tests.
base::rc deep_search(VantorXmlNode response, const char *full_path, const search_request &request,
                    const walk_hooks *hooks = nullptr) noexcept;

}  // namespace listing
