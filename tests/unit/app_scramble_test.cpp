// The identity file's password text, checked against a reader and a writer
// written here from the layout alone: identity files already on users'
// drives must keep verifying, and new ones must be readable by old players.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "appstore/scramble.h"

namespace {

using appstore::app_random;

// Digit i of the id as the player computed it: true decimal digits up to
// position 8; position 9 is taken modulo 10^10 wrapped to 32 bits, position
// 10 divides by that wrapped value and is always 0.
int reference_digit(int64_t id, int i) {
    if (i <= 8) {
        int64_t p = 1;
        for (int k = 0; k < i; ++k) p *= 10;
        return static_cast<int>((id / p) % 10);
    }
    if (i == 9) return static_cast<int>((id % 1410065408LL) / 1000000000LL);
    return 0;
}

bool is_hex_char(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

// Reads the password out of a scrambled text (printable passwords only).
std::string reference_unscramble(const std::string &text, int64_t id) {
    std::string password;
    if (text.size() < 2) return "<short>";
    std::size_t at = static_cast<unsigned char>(text[text.size() - 2]) % 6;
    for (int i = 0; i < 10; ++i) {
        at += reference_digit(id, i);
        if (at + 2 >= text.size()) return password + "<overrun>";
        int shift = static_cast<unsigned char>(text[at]) % 10;
        char low = text[at + 1], high = text[at + 2];
        if (high == '9') return password;
        int value = std::stoi(std::string{high, low}, nullptr, 16);
        password.push_back(static_cast<char>(value + shift));
        at += 3;
    }
    return password;
}

// Writes a scrambled text with its own random choices (any hex filler).
std::string reference_scramble(const std::string &password, int64_t id, std::mt19937 &rng) {
    auto hex = [&] { return "0123456789abcdef"[rng() % 16]; };
    std::string out;
    char lead = hex();
    out.append(static_cast<unsigned char>(lead) % 6, '\0');
    for (char &c : out) c = hex();
    for (std::size_t i = 0; i < password.size(); ++i) {
        for (int k = 0; k < reference_digit(id, static_cast<int>(i)); ++k) out.push_back(hex());
        char r = hex();
        out.push_back(r);
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", password[i] - (r % 10));
        out.push_back(digits[1]);
        out.push_back(digits[0]);
    }
    for (int k = 0; k < reference_digit(id, static_cast<int>(password.size())) + 2; ++k) out.push_back(hex());
    out.push_back('9');
    for (int k = static_cast<int>(rng() % 40); k > 0; --k) out.push_back(hex());
    out.push_back(lead);
    out.push_back(hex());
    return out;
}

std::string hex_of(const std::string &password) {
    std::string out;
    for (unsigned char c : password) {
        char d[4];
        std::snprintf(d, sizeof d, "%x", c);
        out += d;
    }
    return out;
}

// Ids with 1 to 10 digits, and those where the wrapped arithmetic differs
// from plain decimal digits.
const std::vector<int32_t> ids = {7,         42,         906,        5831,       60000,     123456,
                                  9999999,   10000000,   987654321,  1000000000, 1410065407, 1410065408,
                                  1999999999, 2147483647, 0};

const std::vector<std::string> passwords = {
    "", "a", "Zz", "p@s", "1234", "hello", "  sp  ", "~!#$%^", "Pass word", "abcdefghi", "0123456789",
};

TEST(IdDigit, WrapsLikeThirtyTwoBitArithmetic) {
    struct row { int32_t id; int position; int32_t digit; };
    const row rows[] = {
        {2147483647, 0, 7}, {2147483647, 8, 1}, {2147483647, 9, 0},  // true digit 2
        {1000000000, 9, 1}, {1410065407, 9, 1}, {1410065408, 9, 0},  // 10^10 wraps to 1410065408
        {1999999999, 9, 0}, {2147483647, 10, 0}, {5, 10, 0},         {908, 1, 0},
        {908, 2, 9},        {-908, 0, -8},                            // negative ids keep C's sign rules
    };
    for (const row &r : rows) EXPECT_EQ(appstore::id_digit(r.id, r.position), r.digit) << r.id << " " << r.position;
    for (int32_t id : ids)
        for (int i = 0; i <= 10; ++i) EXPECT_EQ(appstore::id_digit(id, i), reference_digit(id, i)) << id << " " << i;
}

TEST(Scramble, ReadableByAnIndependentReader) {
    for (int32_t id : ids) {
        for (const std::string &password : passwords) {
            for (unsigned seed : {1u, 77u, 1700000000u}) {
                app_random generator(seed);
                char text[appstore::scrambled_buffer];
                ASSERT_TRUE(appstore::scramble_app_password(text, id, password.c_str(), generator));
                std::string s = text;
                ASSERT_LE(s.size(), appstore::scrambled_max);
                for (char c : s) ASSERT_TRUE(is_hex_char(c)) << s;
                EXPECT_EQ(reference_unscramble(s, id), password) << "id " << id << " text " << s;

                char back[appstore::hex_text_buffer];
                ASSERT_TRUE(appstore::unscramble_app_password(back, text, id));
                EXPECT_EQ(back, hex_of(password)) << "id " << id << " text " << s;
            }
        }
    }
}

TEST(Unscramble, ReadsTextsWrittenByAnIndependentWriter) {
    std::mt19937 rng(12345);
    for (int32_t id : ids) {
        for (const std::string &password : passwords) {
            for (int round = 0; round < 5; ++round) {
                std::string text = reference_scramble(password, id, rng);
                char back[appstore::hex_text_buffer];
                ASSERT_TRUE(appstore::unscramble_app_password(back, text.c_str(), id));
                char given[appstore::hex_text_buffer];
                ASSERT_TRUE(appstore::password_hex_text(given, password.c_str()));
                EXPECT_STREQ(back, given) << "id " << id << " text " << text;
            }
        }
    }
}

TEST(Scramble, FreshRandomnessGivesDifferentTextsThatBothVerify) {
    std::set<std::string> texts;
    for (unsigned seed = 1000; seed < 1020; ++seed) {
        app_random generator(seed);
        char text[appstore::scrambled_buffer];
        ASSERT_TRUE(appstore::scramble_app_password(text, 52731, "secret", generator));
        texts.insert(text);
        char back[appstore::hex_text_buffer];
        ASSERT_TRUE(appstore::unscramble_app_password(back, text, 52731));
        EXPECT_STREQ(back, hex_of("secret").c_str());
    }
    EXPECT_GE(texts.size(), 19u);
}

TEST(Scramble, RefusesOverLongPasswordsAndSmallBuffers) {
    app_random generator(1);
    char text[appstore::scrambled_buffer];
    std::memset(text, 'X', sizeof text);
    EXPECT_FALSE(appstore::scramble_app_password(text, 5, "01234567890", generator));
    EXPECT_STREQ(text, "");
    char tiny[8];
    EXPECT_FALSE(appstore::scramble_app_password(tiny, 5, "0123456789", generator));
    EXPECT_STREQ(tiny, "");
}

TEST(Unscramble, SurvivesDamagedTexts) {
    char back[appstore::hex_text_buffer];
    EXPECT_FALSE(appstore::unscramble_app_password(back, "", 5));
    EXPECT_FALSE(appstore::unscramble_app_password(back, "a", 5));
    // Garbage, negative ids and ids whose digits skip past the end never
    // read outside the text and never match a password they do not hold.
    std::mt19937 rng(99);
    for (int round = 0; round < 20000; ++round) {
        std::string text(rng() % 40, '\0');
        for (char &c : text) c = static_cast<char>(1 + rng() % 255);
        int32_t id = static_cast<int32_t>(rng());
        std::vector<char> copy(text.begin(), text.end());
        copy.push_back('\0');
        appstore::unscramble_app_password(back, copy.data(), id);
        ASSERT_LT(std::strlen(back), sizeof back);
    }
}

TEST(PasswordHexText, PrintsEachCharacterAsTheUnscramblerDoes) {
    char out[appstore::hex_text_buffer];
    ASSERT_TRUE(appstore::password_hex_text(out, "Az~ "));
    EXPECT_STREQ(out, "417a7e20");
    ASSERT_TRUE(appstore::password_hex_text(out, ""));
    EXPECT_STREQ(out, "");
    // Characters from 0x80 on print as negative values: they never match
    // what a scrambled text gives back.
    ASSERT_TRUE(appstore::password_hex_text(out, "\xc3"));
    EXPECT_STREQ(out, "ffffffc3");
    app_random generator(3);
    char text[appstore::scrambled_buffer];
    ASSERT_TRUE(appstore::scramble_app_password(text, 42, "\xc3", generator));
    char back[appstore::hex_text_buffer];
    ASSERT_TRUE(appstore::unscramble_app_password(back, text, 42));
    EXPECT_STRNE(back, out);
}

}  // namespace
