#include "listing/sort_orders.h"

#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "base/text.h"

namespace listing {
namespace {

constexpr std::array<std::string_view, 6> sort_keys{"name_asc", "name_dsc", "size_asc",
                                                    "size_dsc", "date_asc", "date_dsc"};

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

int compare_name_descending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folders_first(a, b)) return side;
    return reverse_result(natural_compare(a.name, b.name));
}

int compare_size_ascending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folders_first(a, b)) return side;
    if (sorts_as_folder(a.d_type)) return natural_compare(a.name, b.name);
    if (a.size != b.size) return a.size < b.size ? -1 : 1;
    return natural_compare(a.name, b.name);
}

int compare_size_descending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folders_first(a, b)) return side;
    if (sorts_as_folder(a.d_type)) return reverse_result(natural_compare(a.name, b.name));
    if (a.size != b.size) return a.size > b.size ? -1 : 1;
    return reverse_result(natural_compare(a.name, b.name));
}

int compare_date_ascending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folders_first(a, b)) return side;
    if (a.mtime != b.mtime) return a.mtime < b.mtime ? -1 : 1;
    return natural_compare(a.name, b.name);
}

int compare_date_descending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folders_first(a, b)) return side;
    if (a.mtime != b.mtime) return a.mtime > b.mtime ? -1 : 1;
    return reverse_result(natural_compare(a.name, b.name));
}

int compare_drive_name_ascending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folders_first(a, b)) return side;
    return natural_compare(a.label, b.label);
}

int compare_drive_name_descending(const sort_entry &a, const sort_entry &b) noexcept {
    if (int side = folders_first(a, b)) return side;
    return reverse_result(natural_compare(a.label, b.label));
}

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

int sort_order_of(const char *text) noexcept {
    if (text == nullptr) return 0;
    for (std::size_t i = 0; i < sort_keys.size(); ++i)
        if (base::iequals(text, sort_keys[i])) return static_cast<int>(i);
    return 0;
}

}  // namespace listing
