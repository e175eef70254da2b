// "list_user_storage_file": one page of a local folder, of the top level or
// of a network folder, answered from the listing cache when asked to.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "listing/cache_records.h"
#include "platform/host_api.h"

namespace listing {

base::rc list_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

enum cache_state : int { cache_answered = 0, cache_skip = 1, cache_store = 2 };

// The cache lookup: answers the page from the cache file (0), or tells
// whether the fresh listing is to be cached (2) or not (1: an enclosing
// folder is cached). `request_path` is the whole request path (the key
// holds at most 256 characters of it).
int cache_lookup(VantorXmlNode *response_slot, const listing_key &key, const char *request_path,
                 bool with_details, const char *file = cache_file) noexcept;

}  // namespace listing
