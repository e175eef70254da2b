// Subtitle files lying beside a video.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "platform/host_api.h"

namespace media {

// "search_user_storage_subtitle" video: answers `subtitles` with one
// `subtitle` per file found.
base::rc search_user_storage_subtitle(VantorXmlNode *response_slot, CommandRequest *request) noexcept;

}  // namespace media
