// Where a storage's folders and files lie on a drive, and the small pieces
// the storage and file commands share. Internal to the app storage module.
#pragma once

#include <cstdint>

#include "base/text.h"
#include "platform/host_api.h"

namespace appstore::detail {

// argv[index] of the request, or null when the request holds no such word.
inline const char *argument(const CommandRequest *request, int32_t index) noexcept {
    if (request == nullptr || request->args == nullptr || index >= request->args->argc) return nullptr;
    return request->args->argv[index];
}

// R/.vtr_apps
inline bool storage_area_path(base::path_buffer &out, const char *drive) noexcept {
    return base::format_into(out, "%s/.vtr_apps", drive);
}
// R/.vtr_apps/.vtr_app_N/
inline bool storage_folder_path(base::path_buffer &out, const char *drive, int32_t id) noexcept {
    return base::format_into(out, "%s/.vtr_apps/.vtr_app_%d/", drive, id);
}
// R/.vtr_apps/.vtr_app_N/.id_N
inline bool identity_file_path(base::path_buffer &out, const char *drive, int32_t id) noexcept {
    return base::format_into(out, "%s/.vtr_apps/.vtr_app_%d/.id_%d", drive, id, id);
}
// R/.vtr_apps/.vtr_app_N/NAME
inline bool storage_file_path(base::path_buffer &out, const char *drive, int32_t id, const char *name) noexcept {
    return base::format_into(out, "%s/.vtr_apps/.vtr_app_%d/%s", drive, id, name);
}

}  // namespace appstore::detail
