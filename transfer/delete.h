// The batch delete: every selected entry, and on request the companion
// files the player keeps beside videos and disc folders.
#pragma once

#include "base/result.h"
#include "platform/host_api.h"

namespace transfer {

// delete_user_storage_file_from_list: optional argv[1] "true" also removes
// the companion files. 0 when the batch was started, else 4.
base::rc delete_user_storage_file_from_list(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

// The status of a failed removal in the delete events, or 0 when the error
// stops the delete walk.
base::rc delete_status_for(int error) noexcept;

}  // namespace transfer
