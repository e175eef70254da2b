#include "listing/type_words.h"

#include <cstring>

#include "media/disc.h"

namespace listing {

const char *type_word_for_mime(const char *mime) noexcept {
    if (mime == nullptr) return "others";
    if (std::strncmp(mime, "image", 5) == 0) return "photo";
    if (std::strncmp(mime, "audio", 5) == 0) return "music";
    if (std::strncmp(mime, "video", 5) == 0) return std::strcmp(mime, "video/iso") == 0 ? "video_iso" : "video";
    if (std::strcmp(mime, "application/x-shockwave-flash") == 0) return "phf";
    if (std::strcmp(mime, "torrent") == 0) return "torrent";
    return "others";
}

const char *type_word_for_disc_kind(unsigned int kind) noexcept {
    switch (kind) {
    case media::bdmv:
    case media::bdav: return "bd_rip";
    case media::video_ts:
    case media::dvd_rtav: return "dvd_rip";
    default: return "video";
    }
}

}  // namespace listing
