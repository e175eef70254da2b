// Private storage folders of the player's applications: one folder per
// storage under ".vtr_apps" on a drive, guarded by a password kept
// scrambled in the storage's identity file, and the file commands inside.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "base/text.h"
#include "platform/host_api.h"

namespace appstore {

// 0 when the password opens the storage `id_text` on `drive`, 401 when its
// identity file does not exist, 1 otherwise (missing argument, drive path
// that cannot be translated, unreadable identity file, wrong password).
// Leaves the identity file's path in identity_path.
base::rc verify_app_access(const char *drive, const char *id_text, const char *password,
                          base::path_buffer &identity_path) noexcept;

// Storages.
base::rc create_app_storage(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
base::rc change_app_storage_password(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
base::rc delete_app_storage(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
base::rc delete_all_app_storage(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

// Files inside a storage: argv[1] file name, argv[2] drive, argv[3] id,
// argv[4] password.
base::rc create_app_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
base::rc write_app_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
base::rc read_app_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
base::rc get_app_storage_file_info(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
base::rc copy_app_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
base::rc delete_app_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

}  // namespace appstore
