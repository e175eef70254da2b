#include "listing/dates.h"

#include <cstring>

namespace listing {

void format_date(time_t t, bool keep_line_feed, std::span<char, 32> out) noexcept {
    out[0] = '\0';
    struct tm local;
    if (::localtime_r(&t, &local) == nullptr) return;
    if (::asctime_r(&local, out.data()) == nullptr) {
        out[0] = '\0';
        return;
    }
    if (!keep_line_feed) {
        std::size_t n = std::strlen(out.data());
        if (n > 0 && out[n - 1] == '\n') out[n - 1] = '\0';
    }
}

}  // namespace listing
