// Downloads from the metadata server (and other web addresses) into user
// storage, and the checks that tell whether a download can succeed.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "base/result.h"
#include "platform/host_api.h"

extern "C" {

// 1 when a file can be created in folder, else 0.
int file_operation_test_permission(const char *folder) noexcept;

// Wait status of the probe of the metadata server, as system() gives it:
// 0 when it answered.
int file_operation_test_internet_connection() noexcept;

// "verify_user_storage_download_status" folder: 0 ready, 11 bad folder,
// 60 not writable, 22 no room, 61 server unreachable. No answer elements.
int32_t file_operation_check_download_target_status(VantorXmlNode *response_slot,
                                                    CommandRequest *request) noexcept;

// "download_user_storage_file" folder address [name [extension]]: answers
// `path` with the stored file.
int32_t file_operation_download_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

}  // extern "C"

namespace media {

// The handlers behind the two exports above.
base::rc verify_user_storage_download_status(VantorXmlNode *response_slot, CommandRequest *request) noexcept;
base::rc download_user_storage_file(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

// Wall-clock limit of each child program of the download commands (`wget`
// fetching a file, the server probe): a server that keeps the connection
// alive without ever finishing cannot hold a request thread longer. A
// download cut off by it answers as one that fetched nothing (12); a probe
// cut off answers unreachable (61).
inline constexpr int download_time_limit_seconds = 120;

// Used when the configuration does not name the metadata server.
inline constexpr std::string_view default_metadata_host = "vtrdb.local";

// The metadata server's host (and optional ":port") from the configuration
// variable "vtrdb_host", or the default when it is unset, empty or longer
// than 255 characters.
void metadata_host(std::span<char, 256> out) noexcept;

// How the final name of a download is formed from the folder, the name and
// the extension arguments (name null: folder art). False when it does not
// fit the buffer; *must_be_new tells whether an existing file refuses it.
bool download_final_name(std::span<char> out, const char *folder, const char *name, const char *extension,
                         bool *must_be_new) noexcept;

// True when the text from the last "." of name is ".gz" in any case.
bool has_gz_suffix(std::string_view name) noexcept;

}  // namespace media
