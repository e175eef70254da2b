// The position of an entry within the listing of its parent folder, counted
// under the listing's own sorting and filtering rules, locally or on a
// network share.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "platform/host_api.h"

namespace listing {

// "get_user_storage_file_index" (argc exactly 6): argv[1] the entry (a path
// under the drives root or an "smb://" / "nfs://" URL), [2] media filter
// word, [3] sort word, [4] folders shown, [5] files shown. Answers "index"
// (1-based, empty when the entry is not counted) and "total".
base::rc get_user_storage_file_index(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

struct index_count {
    int32_t index = 0;  // 0: not counted
    int32_t total = 0;
};

// The local count over the folder `parent` (as given: a relative parent is
// read relative to the working directory). 0, or 4 when the folder cannot
// be read.
base::rc count_local_index(const char *parent, const char *name, const char *filter_word, int sort_order,
                          bool show_folders, bool show_files, index_count &out) noexcept;

// The count over a network client answer file (records of a field line and
// an address line). A missing file counts nothing.
void count_network_answer(const char *answer_file, const char *name, const char *filter_word, bool show_folders,
                          bool show_files, index_count &out) noexcept;

}  // namespace listing
