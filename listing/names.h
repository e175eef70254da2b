// Display names of drives and network shares, as the user named them.
#pragma once

#include <span>

namespace listing {

// The configured name of the network share holding url ("netfs_url<N>" /
// "netfs_name<N>", N 0..20), or "Unknown".
void share_display_name(const char *url, std::span<char> out) noexcept;

// The label of the drive holding path, from the first line of
// /tmp/usb_name.txt that holds "<drive folder>|" (its second "|" field), or
// "Unknown" when the file or the line is missing.
void drive_display_name(const char *path, std::span<char> out) noexcept;

}  // namespace listing
