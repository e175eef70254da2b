// Audio-CD ripping: prepares the album folder, runs the external ripper
// and waits for it, stops it through a marker file, asks it for the track
// list and clears the status files it shares with the user interface.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "platform/host_api.h"

namespace media {

// Files under /tmp shared with the ripper and the user interface.
inline constexpr const char *ripping_status_file = "/tmp/RippingStatus.txt";
inline constexpr const char *kill_ripper_file = "/tmp/kill_paranoia";
inline constexpr const char *track_number_file = "/tmp/TrackNumber.txt";
inline constexpr const char *album_name_file = "/tmp/AlbumeName.txt";
inline constexpr const char *track_list_file = "/tmp/list.txt";

// Folders made for a rip belong to this user and group.
inline constexpr unsigned rip_owner = 1001;

// The handler of every sub-command whose name holds "ripping"; argv[1]
// selects the action (no argument count is checked before it is called).
base::rc ripping(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

}  // namespace media
