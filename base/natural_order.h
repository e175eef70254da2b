// The natural order of names: the order every listing shows and every
// folder copy walks, folders before files.
#pragma once

#include <cstdint>

namespace base {

// Version order of two names, each character compared after tolower (C
// locale): digit runs by value ("a9" < "a10"), runs with leading zeros as
// fractional parts. Negative, zero or positive like strcmp.
int natural_compare(const char *a, const char *b) noexcept;

// The descending form of a comparison result: 1 for negative, 0 for 0,
// -1 for positive (not plain negation).
constexpr int reverse_result(int r) noexcept { return r < 0 ? 1 : (r == 0 ? 0 : -1); }

// An entry counts as a folder for ordering when bit value 4 of its type
// byte is set (directories, block devices and sockets alike).
constexpr bool sorts_as_folder(unsigned char d_type) noexcept { return (d_type & 4) != 0; }

// One entry as the comparators see it. The keys are filled once per
// listing, before sorting: size for the size orders (files), modification
// time for the date orders, label for the drive orders.
struct sort_entry {
    const char *name = "";
    const char *label = "";   // drive display name; "" for files, hidden names, NETWORK_SHARE
    int64_t size = 0;         // st_size, 0 when stat failed
    int32_t mtime = 0;        // st_mtime as signed 32-bit seconds, 0 when stat failed
    unsigned char d_type = 0;
};

// Folders first: -1 when only a is a folder, 1 when only b is, 0 when both
// are on the same side.
constexpr int folders_first(const sort_entry &a, const sort_entry &b) noexcept {
    bool fa = sorts_as_folder(a.d_type);
    bool fb = sorts_as_folder(b.d_type);
    if (fa == fb) return 0;
    return fa ? -1 : 1;
}

// Folders first, then names in natural order.
int compare_name_ascending(const sort_entry &a, const sort_entry &b) noexcept;

}  // namespace base
