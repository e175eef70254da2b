#include "media/subtitle.h"

#include <unistd.h>

#include <array>
#include <cstring>
#include <string_view>

#include "base/answer.h"
#include "base/owners.h"
#include "base/result.h"
#include "base/text.h"
#include "media/hash.h"
#include "storage/paths.h"

namespace media {
namespace {

// Looked for in this order; compared as written (lower case only).
constexpr std::array<std::string_view, 6> subtitle_extensions{".ass", ".idx", ".ssa", ".smi", ".srt", ".sub"};

constexpr std::size_t subtitle_path_max = 512;  // stem and candidates

// A folder (a disc folder such as DVD1) keeps its whole path; a file loses
// its extension, the text from the last "." of its name on. A name without
// "." keeps the whole path.
std::string_view subtitle_stem(std::string_view path, bool folder) noexcept {
    if (folder) return path;
    std::size_t slash = path.rfind('/');
    std::size_t dot = path.rfind('.');
    if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash)) return path;
    return path.substr(0, dot);
}

}  // namespace

base::rc search_user_storage_subtitle(VantorXmlNode *response_slot, CommandRequest *request) noexcept {
    base::unique_malloc<char> resolved;
    const char *video = storage::resolve_first_argument(request, resolved);
    if (video == nullptr) return base::rc::bad_argument;
    std::string_view path(video);
    if (path.size() >= subtitle_path_max) return base::rc::bad_argument;
    std::string_view stem = subtitle_stem(path, is_path_folder(video) == 1);

    VantorXmlNode subtitles = base::add_element(base::response_of(response_slot), "subtitles", "");
    bool found = false;
    for (std::string_view extension : subtitle_extensions) {
        char candidate[subtitle_path_max];
        // A candidate too long for the buffer is not looked for.
        if (!base::copy_text(candidate, stem) || !base::append_text(candidate, extension)) continue;
        if (::access(candidate, F_OK) != 0) continue;
        base::add_element(subtitles, "subtitle", candidate);
        found = true;
    }
    if (!found) base::add_element(subtitles, "subtitle", "");
    return base::rc::ok;
}

}  // namespace media
