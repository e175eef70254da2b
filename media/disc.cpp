#include "media/disc.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string_view>

#include "base/export.h"
#include "base/text.h"

namespace media {
namespace {

// One marker probe: any of its spellings, tried in order.
struct marker {
    std::array<const char *, 2> spellings;
    unsigned int kind;  // result when the probe holds (rule 1 needs its pair)
};

// Rule 1 is a pair: an index file and then a movie-object file.
constexpr marker bdmv_index{{"/BDMV/index.bdmv", "/BDMV/INDEX.BDM"}, bdmv};
constexpr marker bdmv_movie{{"/BDMV/MovieObject.bdmv", "/BDMV/MOVIEOBJ.BDM"}, bdmv};
// Rules 2 to 5, in the order they are tried.
constexpr std::array<marker, 4> single_markers{{
    {{"/VIDEO_TS.IFO", "/video_ts.ifo"}, video_ts},  // the folder is itself VIDEO_TS
    {{"/BDAV/info.bdav", nullptr}, bdav},
    {{"/VIDEO_TS/VIDEO_TS.IFO", "/video_ts/video_ts.ifo"}, video_ts},
    {{"/DVD_RTAV/VR_MANGR.IFO", nullptr}, dvd_rtav},
}};

constexpr std::size_t spellings_of(const marker &m) {
    return (m.spellings[0] != nullptr ? 1 : 0) + (m.spellings[1] != nullptr ? 1 : 0);
}
constexpr std::size_t most_open_attempts() {
    std::size_t n = spellings_of(bdmv_index) + spellings_of(bdmv_movie);
    for (const marker &m : single_markers) n += spellings_of(m);
    return n;
}
// The detection runs for every folder of a listing page.
static_assert(most_open_attempts() <= 10, "at most ten open attempts per folder");

bool any_exists(char *buffer, int length, const marker &m) noexcept {
    for (const char *suffix : m.spellings)
        if (suffix != nullptr && vantor_command_server_existfile(buffer, length, suffix) == 1) return true;
    return false;
}

constexpr std::array<const char *, 10> disc_texts{
    "NO DISC", "DATA-DISC", nullptr, nullptr, "AUDIO-CD", "DVD-VIDEO", "CDi", "BD-RE", "BD-ROM", "AVCHD",
};

}  // namespace

const char *disc_code_text(int code) noexcept {
    if (code < 0 || code >= static_cast<int>(disc_texts.size()) || disc_texts[code] == nullptr)
        return "UNSUPPORTED DISC";
    return disc_texts[code];
}

}  // namespace media

extern "C" {

FILEOP_EXPORT int vantor_command_server_existfile(char *buffer, int length, const char *suffix) noexcept {
    if (buffer == nullptr || suffix == nullptr || length < 0 || length >= static_cast<int>(base::path_max))
        return 0;
    std::size_t room = base::path_max - 1 - static_cast<std::size_t>(length);
    std::size_t n = ::strnlen(suffix, room);
    std::memcpy(buffer + length, suffix, n);
    buffer[length + n] = '\0';
    // Non-blocking, so that a marker that is a FIFO cannot hold the listing.
    int fd = ::open(buffer, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return 0;
    ::close(fd);
    return 1;
}

FILEOP_EXPORT unsigned int vantor_command_server_cdtypedetection(const char *folder) noexcept {
    if (folder == nullptr) return media::no_structure;
    std::size_t length = ::strnlen(folder, base::path_max);
    if (length >= base::path_max) return media::no_structure;  // would not be terminated
    char buffer[base::path_max];
    std::memcpy(buffer, folder, length + 1);
    int n = static_cast<int>(length);
    if (media::any_exists(buffer, n, media::bdmv_index) && media::any_exists(buffer, n, media::bdmv_movie))
        return media::bdmv;
    for (const media::marker &m : media::single_markers)
        if (media::any_exists(buffer, n, m)) return m.kind;
    return media::no_structure;
}

}  // extern "C"
