#include "listing/search_classification.h"

#include <cstring>

#include "listing/filters.h"
#include "listing/type_words.h"
#include "media/disc.h"
#include "storage/mime.h"

namespace listing {

search_result classify_search_entry(const search_candidate &entry, const search_filter &filter) noexcept {
    search_result out;
    if (entry.name == nullptr || entry.path == nullptr || is_hidden_name(entry.name) ||
        std::strstr(entry.path, "/.") != nullptr) {
        out.verdict = search_verdict::skip_subtree;
        return out;
    }
    if (entry.is_start) return out;
    if (filter.keyword != nullptr && filter.keyword[0] != '\0' && !keyword_matches(entry.name, filter.keyword))
        return out;
    const char *word = filter.filter_word != nullptr ? filter.filter_word : "";
    if (entry.is_folder) {
        if (is_system_folder(entry.name)) {
            out.verdict = search_verdict::skip_subtree;
            return out;
        }
        unsigned int kind = vantor_command_server_cdtypedetection(entry.path);
        if (kind != media::no_structure) {
            if (filter.want_files && (word[0] == '\0' || std::strcmp(word, "video") == 0)) {
                out.verdict = search_verdict::list_file;
                out.disc_kind = kind;
                out.type_word = type_word_for_disc_kind(kind);
            }
            return out;
        }
        if (filter.want_folders) out.verdict = search_verdict::list_folder;
        return out;
    }
    if (!filter.want_files || !entry.is_regular) return out;
    const char *mime = storage::mime_type_for_path(entry.path);
    if (!mime_passes_filter(mime, mime_prefix_for_filter(word))) return out;
    out.verdict = search_verdict::list_file;
    out.type_word = type_word_for_mime(mime);
    return out;
}

}  // namespace listing
