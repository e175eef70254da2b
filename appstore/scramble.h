// The identity file's password text: the password is never stored plainly
// but hidden among random hexadecimal characters at places that follow the
// decimal digits of the storage id. Identity files written by earlier
// releases must keep verifying, so the layout below is fixed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>

namespace appstore {

inline constexpr std::size_t password_max = 10;  // characters; 11 or more are refused
// Longest scrambled text: 5 lead characters, 10 x (10 + 2) for the password,
// 11 + 1 for the tail and its marker, 10 x 8 filler, 2 closing characters.
inline constexpr std::size_t scrambled_max = 5 + 10 * 12 + 12 + 10 * 8 + 2;
inline constexpr std::size_t scrambled_buffer = 256;
// A password as hex text: at most 8 digits per character ("%x" of a
// negative char), 10 characters.
inline constexpr std::size_t hex_text_buffer = 128;
static_assert(scrambled_max < scrambled_buffer);

// The random source of one request. Each call seeds its own generator from
// the clock (so two requests in the same second draw the same numbers, as
// the process-wide generator did) without sharing state between threads.
struct app_random {
    unsigned int seed;
    explicit app_random(std::time_t now) noexcept : seed(static_cast<unsigned int>(now)) {}
};

// A non-negative 31-bit number.
int32_t next_random(app_random &generator) noexcept;

// '0'..'9' or 'a'..'f'.
char random_hex_char(app_random &generator) noexcept;

// Decimal digit `position` (0 = units, up to 10) of the id, computed in
// wrapping 32-bit arithmetic: position 9 divides by 10^9 modulo 10^10
// wrapped to 1410065408, position 10 always gives 0.
int32_t id_digit(int32_t id, int position) noexcept;

// Writes the scrambled text of a password of at most password_max
// characters for the id; false (out left empty) when the password is too
// long or out too small. The public form seeds from the clock.
bool scramble_app_password(std::span<char> out, int32_t id, const char *password) noexcept;
bool scramble_app_password(std::span<char> out, int32_t id, const char *password,
                           app_random &generator) noexcept;

// Reads back the password of a scrambled text as hex text (each character
// printed "%x"); false when the text is too short to hold its lead
// character, which then verifies no password.
bool unscramble_app_password(std::span<char> out, const char *scrambled, int32_t id) noexcept;

// The password as the hex text the unscrambler gives; false when it does not
// fit (a password that long never verifies).
bool password_hex_text(std::span<char> out, const char *password) noexcept;

}  // namespace appstore
