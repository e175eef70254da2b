// Display names of drives and network shares, as the user named them.
#pragma once

#include <span>

#include "base/owners.h"

namespace storage {

// The configured network shares are the pairs "netfs_name<N>" and
// "netfs_url<N>", N from 0 to netfs_pairs - 1.
inline constexpr int netfs_pairs = 21;

// The value of the configuration variable "<stem><n>", or null when unset.
base::unique_malloc<char> netfs_variable(const char *stem, int n) noexcept;

// The configured name of the network share holding url ("netfs_url<N>" /
// "netfs_name<N>", N 0..20), or "Unknown".
void share_display_name(const char *url, std::span<char> out) noexcept;

// The label of the drive holding path, from the first line of
// /tmp/usb_name.txt that holds "<drive folder>|" (its second "|" field), or
// "Unknown" when the file or the line is missing.
void drive_display_name(const char *path, std::span<char> out) noexcept;

}  // namespace storage
