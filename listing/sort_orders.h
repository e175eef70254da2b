// The sort orders of the listers: folders first, then by name, size, date
// or drive label, ascending or descending.
#pragma once

#include <cstdint>
#include <span>

#include "base/natural_order.h"

namespace listing {

using base::compare_name_ascending;
using base::natural_compare;
using base::reverse_result;
using base::sort_entry;
using base::sorts_as_folder;

enum class sort_kind : uint8_t {
    name_ascending,
    name_descending,
    size_ascending,
    size_descending,
    date_ascending,
    date_descending,
    drive_name_ascending,
    drive_name_descending,
};

int compare_name_descending(const sort_entry &a, const sort_entry &b) noexcept;
int compare_size_ascending(const sort_entry &a, const sort_entry &b) noexcept;
int compare_size_descending(const sort_entry &a, const sort_entry &b) noexcept;
int compare_date_ascending(const sort_entry &a, const sort_entry &b) noexcept;
int compare_date_descending(const sort_entry &a, const sort_entry &b) noexcept;
int compare_drive_name_ascending(const sort_entry &a, const sort_entry &b) noexcept;
int compare_drive_name_descending(const sort_entry &a, const sort_entry &b) noexcept;

using entry_comparator = int(const sort_entry &, const sort_entry &) noexcept;

// sortOrder of a sort word ("name_asc" 0, "name_dsc" 1, "size_asc" 2,
// "size_dsc" 3, "date_asc" 4, "date_dsc" 5, any case); 0 for anything else.
int sort_order_of(const char *word) noexcept;

// The selection table of the local lister: a keyword forces name
// ascending; sortOrder 0/1 (and any value outside 1..5 as 0) use the drive
// orders at the top level with filter word "local".
sort_kind select_sort(int sort_order, bool top_level, const char *filter_word, bool has_keyword) noexcept;

// Which keys an order reads (the others need not be filled).
constexpr bool sort_needs_size(sort_kind k) noexcept {
    return k == sort_kind::size_ascending || k == sort_kind::size_descending;
}
constexpr bool sort_needs_time(sort_kind k) noexcept {
    return k == sort_kind::date_ascending || k == sort_kind::date_descending;
}
constexpr bool sort_needs_label(sort_kind k) noexcept {
    return k == sort_kind::drive_name_ascending || k == sort_kind::drive_name_descending;
}

// Stable merge sort of entry pointers (safe whatever the comparator
// answers). Entries that compare equal keep their reading order.
void sort_entries(std::span<sort_entry *> entries, sort_kind kind) noexcept;

}  // namespace listing
