// The player's configuration variables and the network-share mapping, as
// the simulator keeps them: a "name=value" file, re-read on every lookup.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vtrsim {

inline constexpr const char *default_config_path = "/opt/vtrhttpd/default/vtr.conf";
inline constexpr const char *network_share_root = "/opt/vtrhttpd/localhost.drives/NETWORK_SHARE";
inline constexpr int share_slots = 21;  // netfs_url0 .. netfs_url20

// $VTR_CONFIG when set and not empty, else the default path.
std::string config_path();
// The value of a variable: the last "name=value" line for name (blank
// lines and lines starting with "#" ignored, spaces around the name and a
// trailing carriage return dropped). Nothing when unset or unreadable.
std::optional<std::string> config_value(std::string_view name);
// Prefixes listed in "vtrsim_fat_paths" (colon-separated).
std::vector<std::string> fat_paths();
// True when path equals one of those prefixes or lies below one.
bool under_fat_path(std::string_view path);

// "smb://host/share/rest" -> ".../NETWORK_SHARE/<netfs_nameN>/rest" when
// "smb://host/share" equals netfs_urlN; nothing otherwise.
std::optional<std::string> map_share_url(std::string_view address);

}  // namespace vtrsim
