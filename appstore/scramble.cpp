#include "appstore/scramble.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/text.h"

namespace appstore {
namespace {

// Bounded writer of the scrambled text.
struct text_writer {
    std::span<char> out;
    std::size_t used = 0;
    bool overflow = false;

    void put(char c) noexcept {
        if (used + 1 >= out.size()) {
            overflow = true;
            return;
        }
        out[used++] = c;
    }
    void put_random(app_random &generator, int count) noexcept {
        for (int i = 0; i < count; ++i) put(random_hex_char(generator));
    }
    bool finish() noexcept {
        out[overflow ? 0 : used] = '\0';
        return !overflow;
    }
};

int code_of(char c) noexcept { return static_cast<unsigned char>(c); }

// Characters compare as the player's C library sees them: signed.
int signed_code(char c) noexcept { return static_cast<signed char>(c); }

int hex_value(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The two hex digits read as a number, stopping at the first character that
// is not a hex digit, then taken as a signed 8-bit value.
int hex_byte(char high, char low) noexcept {
    int value = 0;
    for (char c : {high, low}) {
        int v = hex_value(c);
        if (v < 0) break;
        value = value * 16 + v;
    }
    return static_cast<signed char>(static_cast<unsigned char>(value));
}

// The first two characters "%x" gives for a shifted password character:
// two digits for the printable range, a leading zero below 0x10 (control
// characters), "ff" for a negative value (characters from 0x80 on, which
// do not survive scrambling).
void shifted_digits(int shifted, char digits[2]) noexcept {
    static constexpr char hex[] = "0123456789abcdef";
    if (shifted < 0) {
        digits[0] = digits[1] = 'f';
        return;
    }
    digits[0] = hex[(shifted >> 4) & 0xf];
    digits[1] = hex[shifted & 0xf];
}

}  // namespace

int32_t next_random(app_random &generator) noexcept { return ::rand_r(&generator.seed) & 0x7fffffff; }

char random_hex_char(app_random &generator) noexcept {
    if (next_random(generator) & 1) return static_cast<char>('a' + next_random(generator) % 6);
    return static_cast<char>('0' + next_random(generator) % 10);
}

int32_t id_digit(int32_t id, int position) noexcept {
    if (position < 0 || position > 10) return 0;
    uint32_t power = 1;
    for (int i = 0; i < position; ++i) power *= 10u;
    // The values wrap as the player's 32-bit arithmetic did; none of them is
    // 0 or -1 for positions 0 to 10.
    auto divisor = static_cast<int32_t>(power);
    auto modulus = static_cast<int32_t>(power * 10u);
    return (id % modulus) / divisor;
}

bool scramble_app_password(std::span<char> out, int32_t id, const char *password,
                           app_random &generator) noexcept {
    if (out.empty()) return false;
    out[0] = '\0';
    if (password == nullptr) return false;
    std::size_t n = ::strnlen(password, password_max + 1);
    if (n > password_max) return false;

    text_writer w{out};
    char lead = random_hex_char(generator);
    w.put_random(generator, code_of(lead) % 6);
    for (std::size_t i = 0; i < n; ++i) {
        int32_t skip = id_digit(id, static_cast<int>(i));
        char r = '0';
        for (int32_t j = 0; j <= skip; ++j) {
            r = random_hex_char(generator);
            w.put(r);
        }
        char digits[2];
        shifted_digits(signed_code(password[i]) - code_of(r) % 10, digits);
        w.put(digits[1]);  // low digit first
        w.put(digits[0]);
    }
    w.put_random(generator, id_digit(id, static_cast<int>(n)) + 2);
    w.put('9');
    for (std::size_t position = n; position < password_max; ++position) {
        for (int j = 0; j < next_random(generator) % 9; ++j) w.put(random_hex_char(generator));
    }
    w.put(lead);
    w.put(random_hex_char(generator));
    return w.finish();
}

bool scramble_app_password(std::span<char> out, int32_t id, const char *password) noexcept {
    app_random generator(std::time(nullptr));
    return scramble_app_password(out, id, password, generator);
}

bool unscramble_app_password(std::span<char> out, const char *scrambled, int32_t id) noexcept {
    if (out.empty()) return false;
    out[0] = '\0';
    if (scrambled == nullptr) return false;
    std::size_t length = std::strlen(scrambled);
    if (length < 2) return false;
    std::size_t at = static_cast<std::size_t>(code_of(scrambled[length - 2]) % 6);
    for (int i = 0; i < static_cast<int>(password_max); ++i) {
        int32_t skip = id_digit(id, i);
        if (skip < 0) break;  // a negative id names no storage the plug-in made
        at += static_cast<std::size_t>(skip);
        if (at + 2 >= length) break;  // R and both digits must be inside the text
        char r = scrambled[at];
        char low = scrambled[at + 1];
        char high = scrambled[at + 2];
        if (high == '9') break;
        char digits[16];
        if (!base::format_into(digits, "%x", static_cast<unsigned>(hex_byte(high, low) + code_of(r) % 10)) ||
            !base::append_text(out, digits))
            break;
        if (scrambled[at + 3] == '\0') break;
        at += 3;
    }
    return true;
}

bool password_hex_text(std::span<char> out, const char *password) noexcept {
    if (out.empty()) return false;
    out[0] = '\0';
    if (password == nullptr) return false;
    for (const char *p = password; *p != '\0'; ++p) {
        char digits[16];
        if (!base::format_into(digits, "%x", static_cast<unsigned>(signed_code(*p))) ||
            !base::append_text(out, digits))
            return false;
    }
    return true;
}

}  // namespace appstore
