// The search command: names holding a keyword in one folder (through the
// share list), in a whole folder tree (the deep search over the tree
// walker), or on a network share (through the network client).
#pragma once

#include "base/result.h"
#include "platform/host_api.h"

namespace listing {

// "search_user_storage_file" (argc exactly 10): argv[1] folder, [2] offset,
// [3] range, [4] list folders, [5] list files, [6] details, [7] media filter
// word, [8] keyword, [9] search subfolders.
base::rc search_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

}  // namespace listing
