#include "listing/filters.h"

#include <strings.h>

#include <array>
#include <cstring>

#include "base/text.h"
#include "storage/mime.h"

namespace listing {

bool keyword_matches(const char *name, const char *keyword) noexcept {
    if (name == nullptr || keyword == nullptr) return false;
    return base::icontains(name, keyword);
}

bool is_system_folder(const char *name) noexcept {
    if (name == nullptr) return false;
    constexpr std::array<const char *, 3> any_case{"$RECYCLE.BIN", "recycler", "recycled"};
    constexpr std::array<const char *, 4> exact{"pvx_database", "System Volume Information", "@eaDir", "lost+found"};
    for (const char *n : any_case)
        if (::strcasecmp(name, n) == 0) return true;
    for (const char *n : exact)
        if (std::strcmp(name, n) == 0) return true;
    return false;
}

const char *mime_prefix_for_filter(const char *filter_word) noexcept {
    if (filter_word == nullptr) return "";
    if (std::strcmp(filter_word, "music") == 0) return "audio";
    if (std::strcmp(filter_word, "photo") == 0) return "image";
    return filter_word;
}

int network_filter_code(const char *filter_word) noexcept {
    constexpr std::array<const char *, 5> words{"video", "music", "photo", "torrent", "others"};
    if (filter_word == nullptr) return 0;
    for (std::size_t i = 0; i < words.size(); ++i)
        if (std::strcmp(filter_word, words[i]) == 0) return static_cast<int>(i) + 1;
    return 0;
}

bool mime_passes_filter(const char *mime, const char *prefix) noexcept {
    if (mime == nullptr) return false;
    if (prefix == nullptr || prefix[0] == '\0') return std::strcmp(mime, storage::mime_none) != 0;
    return ::strncasecmp(mime, prefix, std::strlen(prefix)) == 0;
}

}  // namespace listing
