// Client paths to local paths, and whether a number of bytes fits at a path.
#pragma once

#include <cstdint>
#include <string_view>

#include "base/owners.h"
#include "base/text.h"
#include "platform/host_api.h"

namespace storage {

inline constexpr std::string_view drives_root = "/opt/vtrhttpd/localhost.drives";           // 30
inline constexpr std::string_view reserved_area = "/opt/vtrhttpd/localhost.drives/.reserved";  // 40
inline constexpr int64_t reserved_quota = 20971520;  // 20 MiB
inline constexpr std::string_view cdrom_tree = "/opt/vtrhttpd/localhost.drives/CDROM";
inline constexpr std::string_view network_share_tree = "/opt/vtrhttpd/localhost.drives/NETWORK_SHARE/";
static_assert(drives_root.size() == 30 && reserved_area.size() == 40);
// Every fixed place of the drive tree lies below the drives root.
static_assert(reserved_area.starts_with(drives_root) && cdrom_tree.starts_with(drives_root) &&
              network_share_tree.starts_with(drives_root));

enum translate_kind : int32_t { untranslatable = -1, network_path = 1, local_path = 2 };
constexpr bool is_translated(int32_t kind) noexcept { return kind == network_path || kind == local_path; }

// Rewrites the path held in a 4096-byte buffer in place: 1 for an "smb://" or
// "nfs://" address now holding its mount path, 2 for a local path now
// absolute under the drives root, -1 when the address cannot be resolved or
// the result would not fit (the buffer is then left unchanged). With the
// confinement switch on, a result outside the drives root is -1 as well.
int32_t translate_storage_path(base::path_buffer &path) noexcept;

// Copies a client argument into a path buffer; false when it does not fit
// (the caller then answers with its translation failure code).
bool load_path(base::path_buffer &buffer, const char *argument) noexcept;

// load_path followed by translate_storage_path; the translation result, or
// -1 when the argument is missing or too long.
int32_t load_and_translate(base::path_buffer &buffer, const char *argument) noexcept;

// The local path of an argument that a command uses without translation:
// the argument itself, or for an "smb://" / "nfs://" address the mount path
// the network library gives (owned by holder). Null when the address cannot
// be resolved, or (confinement switch on) when the path is not absolute
// inside the drives root.
const char *resolve_network_address(const char *argument, base::unique_malloc<char> &holder) noexcept;
// The same for argv[1] of a request; null too when the request holds none.
const char *resolve_first_argument(const CommandRequest *request, base::unique_malloc<char> &holder) noexcept;

// The opt-in confinement switch: the configuration variable
// "file_operation_confine" set to "1", "true", "yes" or "on" (any case).
// Off when unset, so every answer stays as designed.
inline constexpr const char *confine_variable = "file_operation_confine";
bool confinement_enabled() noexcept;

// True when path is absolute, its "." and ".." components resolved as text
// stay inside the drives root, and the longest part of it that exists
// resolves (through every link) inside the drives root as well.
bool path_inside_drives(const char *path) noexcept;

// With the switch on: path_inside_drives(path). With it off: true.
bool path_allowed(const char *path) noexcept;

// True when path itself is a symbolic link whose target lies outside the
// drives root (or cannot be resolved). Such a link is never followed by a
// copy or a move, whatever the switch says.
bool link_leads_out(const char *path) noexcept;

// 0 when `needed` bytes fit at path, 1 when they do not or path is null. The
// reserved area below the drives root has a fixed 20 MiB quota.
int32_t check_free_space(uint32_t needed, const char *path) noexcept;

// Bytes available to users on the drive holding path; 0 when the host
// cannot tell.
int64_t partition_free_bytes(const char *path) noexcept;

}  // namespace storage
