#include "listing/order.h"

#include <strings.h>

#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "base/owners.h"
#include "base/spawn.h"
#include "base/text.h"
#include "media/disc.h"
#include "storage/mime.h"

namespace listing {
namespace {

// tolower of the C locale, as a table: the comparison runs for every pair
// of a 100,000-entry sort and must not call into the locale machinery.
constexpr std::array<unsigned char, 256> lower_table = [] {
    std::array<unsigned char, 256> t{};
    for (int c = 0; c < 256; ++c) t[c] = static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return t;
}();

// Character classes: other 0, digit 1..9 1, "0" 2.
constexpr std::array<unsigned char, 256> class_table = [] {
    std::array<unsigned char, 256> t{};
    for (int c = '1'; c <= '9'; ++c) t[c] = 1;
    t['0'] = 2;
    return t;
}();

// States of the version comparison: normal, integral part, fractional part,
// leading zeros. Each state row has one column per character class.
enum : unsigned char { s_n = 0, s_i = 3, s_f = 6, s_z = 9 };
constexpr std::array<unsigned char, 12> next_state{
    /*          other  digit  zero */
    /* s_n */ s_n, s_i, s_z,
    /* s_i */ s_n, s_i, s_i,
    /* s_f */ s_n, s_f, s_f,
    /* s_z */ s_n, s_f, s_z,
};

// What decides once the characters differ, by state and the two classes.
enum : signed char { cmp = 2, len = 3 };
constexpr std::array<signed char, 36> result_type{
    /*          x/x  x/d  x/0  d/x  d/d  d/0  0/x  0/d  0/0 */
    /* s_n */ cmp, cmp, cmp, cmp, len, cmp, cmp, cmp, cmp,
    /* s_i */ cmp, -1,  -1,  +1,  len, len, +1,  len, len,
    /* s_f */ cmp, cmp, cmp, cmp, cmp, cmp, cmp, cmp, cmp,
    /* s_z */ cmp, +1,  +1,  -1,  cmp, cmp, -1,  cmp, cmp,
};

constexpr bool is_digit(unsigned char c) noexcept { return c >= '0' && c <= '9'; }

// Folders first; 0 when both are on the same side.
constexpr int folder_side(const sort_entry &a, const sort_entry &b) noexcept {
    bool fa = sorts_as_folder(a.d_type);
    bool fb = sorts_as_folder(b.d_type);
    if (fa == fb) return 0;
    return fa ? -1 : 1;
}

template <entry_comparator *compare>
void merge_sort(sort_entry **items, sort_entry **scratch, std::size_t n) noexcept {
    // Bottom-up: runs of 8 by insertion, then merges of doubling width.
    constexpr std::size_t run = 8;
    for (std::size_t lo = 0; lo < n; lo += run) {
        std::size_t hi = lo + run < n ? lo + run : n;
        for (std::size_t i = lo + 1; i < hi; ++i) {
            sort_entry *moving = items[i];
            std::size_t j = i;
            while (j > lo && compare(*items[j - 1], *moving) > 0) {
                items[j] = items[j - 1];
                --j;
            }
            items[j] = moving;
        }
    }
    sort_entry **from = items;
    sort_entry **to = scratch;
    for (std::size_t width = run; width < n; width *= 2) {
        for (std::size_t lo = 0; lo < n; lo += 2 * width) {
            std::size_t mid = lo + width < n ? lo + width : n;
            std::size_t hi = lo + 2 * width < n ? lo + 2 * width : n;
            std::size_t i = lo, j = mid, k = lo;
            while (i < mid && j < hi) to[k++] = compare(*from[j], *from[i]) < 0 ? from[j++] : from[i++];
            while (i < mid) to[k++] = from[i++];
            while (j < hi) to[k++] = from[j++];
        }
        std::swap(from, to);
    }
    if (from != items) std::memcpy(items, from, n * sizeof *items);
}

template <entry_comparator *compare>
void sort_with(std::span<sort_entry *> entries) noexcept {
    std::size_t n = entries.size();
    if (n < 2) return;
    std::unique_ptr<sort_entry *[]> scratch(new (std::nothrow) sort_entry *[n]);
    if (scratch == nullptr) {
        // No room for the merge: insertion sort in place (slow, but ordered).
        for (std::size_t i = 1; i < n; ++i) {
            sort_entry *moving = entries[i];
            std::size_t j = i;
            while (j > 0 && compare(*entries[j - 1], *moving) > 0) {
                entries[j] = entries[j - 1];
                --j;
            }
            entries[j] = moving;
        }
        return;
    }
    merge_sort<compare>(entries.data(), scratch.get(), n);
}

}  // namespace

int natural_compare(const char *s1, const char *s2) noexcept {
    if (s1 == s2) return 0;
    auto p1 = reinterpret_cast<const unsigned char *>(s1);
    auto p2 = reinterpret_cast<const unsigned char *>(s2);
    unsigned char c1 = lower_table[*p1++];
    unsigned char c2 = lower_table[*p2++];
    int state = s_n + class_table[c1];
    int diff;
    while ((diff = c1 - c2) == 0) {
        if (c1 == '\0') return 0;
        state = next_state[state];
        c1 = lower_table[*p1++];
        c2 = lower_table[*p2++];
        state += class_table[c1];
    }
    int result = result_type[state * 3 + class_table[c2]];
    switch (result) {
    case cmp:
        return diff;
    case len:
        // The longer digit run is the larger number.
        while (is_digit(*p1++))
            if (!is_digit(*p2++)) return 1;
        return is_digit(*p2) ? -1 : diff;
    default:
        return result;
    }
}

int compare_name_ascending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folder_side(a, b)) return side;
    return natural_compare(a.name, b.name);
}

int compare_name_descending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folder_side(a, b)) return side;
    return reverse_result(natural_compare(a.name, b.name));
}

int compare_size_ascending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folder_side(a, b)) return side;
    if (sorts_as_folder(a.d_type)) return natural_compare(a.name, b.name);
    if (a.size != b.size) return a.size < b.size ? -1 : 1;
    return natural_compare(a.name, b.name);
}

int compare_size_descending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folder_side(a, b)) return side;
    if (sorts_as_folder(a.d_type)) return reverse_result(natural_compare(a.name, b.name));
    if (a.size != b.size) return a.size > b.size ? -1 : 1;
    return reverse_result(natural_compare(a.name, b.name));
}

int compare_date_ascending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folder_side(a, b)) return side;
    if (a.mtime != b.mtime) return a.mtime < b.mtime ? -1 : 1;
    return natural_compare(a.name, b.name);
}

int compare_date_descending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folder_side(a, b)) return side;
    if (a.mtime != b.mtime) return a.mtime > b.mtime ? -1 : 1;
    return reverse_result(natural_compare(a.name, b.name));
}

int compare_drive_name_ascending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folder_side(a, b)) return side;
    return natural_compare(a.label, b.label);
}

int compare_drive_name_descending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folder_side(a, b)) return side;
    return reverse_result(natural_compare(a.label, b.label));
}

namespace {
constexpr std::array<entry_comparator *, 8> comparators{
    compare_name_ascending, compare_name_descending, compare_size_ascending,     compare_size_descending,
    compare_date_ascending, compare_date_descending, compare_drive_name_ascending, compare_drive_name_descending,
};
static_assert(static_cast<std::size_t>(sort_kind::drive_name_descending) + 1 == comparators.size());
}  // namespace

entry_comparator *comparator_for(sort_kind kind) noexcept { return comparators[static_cast<std::size_t>(kind)]; }

sort_kind select_sort(int sort_order, bool top_level, const char *filter_word, bool has_keyword) noexcept {
    if (has_keyword) return sort_kind::name_ascending;
    bool drives = top_level && filter_word != nullptr && std::strcmp(filter_word, "local") == 0;
    switch (sort_order) {
    case 1: return drives ? sort_kind::drive_name_descending : sort_kind::name_descending;
    case 2: return sort_kind::size_ascending;
    case 3: return sort_kind::size_descending;
    case 4: return sort_kind::date_ascending;
    case 5: return sort_kind::date_descending;
    default: return drives ? sort_kind::drive_name_ascending : sort_kind::name_ascending;
    }
}

void sort_entries(std::span<sort_entry *> entries, sort_kind kind) noexcept {
    switch (kind) {
    case sort_kind::name_ascending: return sort_with<compare_name_ascending>(entries);
    case sort_kind::name_descending: return sort_with<compare_name_descending>(entries);
    case sort_kind::size_ascending: return sort_with<compare_size_ascending>(entries);
    case sort_kind::size_descending: return sort_with<compare_size_descending>(entries);
    case sort_kind::date_ascending: return sort_with<compare_date_ascending>(entries);
    case sort_kind::date_descending: return sort_with<compare_date_descending>(entries);
    case sort_kind::drive_name_ascending: return sort_with<compare_drive_name_ascending>(entries);
    case sort_kind::drive_name_descending: return sort_with<compare_drive_name_descending>(entries);
    }
}

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
