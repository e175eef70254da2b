// Dates as the listings write them.
#pragma once

#include <ctime>
#include <span>

namespace listing {

// asctime form of the local time of t (weekday, month, day, time, year),
// with or without its final line feed; "" when it cannot be formed.
void format_date(time_t t, bool keep_line_feed, std::span<char, 32> out) noexcept;

}  // namespace listing
