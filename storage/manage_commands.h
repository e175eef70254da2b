// Managing single files and folders in user storage: copy or move into a
// folder, back up to a named copy, delete, create a folder, rename. None of
// them answers with elements; the result code says it all.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "platform/host_api.h"

namespace storage {

// argv[1] source file or folder, argv[2] existing target folder; `move` 0
// copies, 1 moves. The source lands inside the folder under its own name.
base::rc copy_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request, int move) noexcept;
// argv[1] source file, argv[2] the copy's full name, argv[3] "true" (only
// when it is the last argument) allows overwriting.
base::rc backup_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
// argv[1] file or folder, removed with everything below it.
base::rc delete_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
// argv[1] new folder (its parent must exist).
base::rc create_user_storage_directory(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
// argv[1] existing file or folder, argv[2] its new path.
base::rc rename_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

// Result code for the errno left by a failed mkdir or rename.
base::rc result_for_errno(int error) noexcept;

}  // namespace storage
