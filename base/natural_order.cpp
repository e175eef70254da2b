#include "base/natural_order.h"

#include <array>

namespace base {
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
    if (int side = folders_first(a, b)) return side;
    return natural_compare(a.name, b.name);
}

}  // namespace base
