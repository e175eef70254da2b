// Password texts against a reference reader written from the layout alone (old identity files must keep verifying).
#include <random>
#include <set>

#include "appstore/scramble.h"
#include "test_util.h"

namespace {

// Digit i of the id: decimal digits up to 8; digit 9 modulo 10^10 wrapped to 32 bits; 10 is 0.
int reference_digit(int64_t id, int i) {
    int64_t p = 1;
    for (int k = 0; k < i && i <= 8; ++k) p *= 10;
    return i <= 8 ? static_cast<int>((id / p) % 10) : i == 9 ? static_cast<int>((id % 1410065408LL) / 1000000000LL) : 0;
}

std::string reference_unscramble(const std::string &text, int64_t id) {
    std::string password;
    std::size_t at = static_cast<unsigned char>(text[text.size() - 2]) % 6;
    for (int i = 0; i < 10; at += 3, ++i) {
        at += reference_digit(id, i);
        if (at + 2 >= text.size()) return password + "<overrun>";
        if (text[at + 2] == '9') return password;
        int value = std::stoi(std::string{text[at + 2], text[at + 1]}, nullptr, 16);
        password.push_back(static_cast<char>(value + static_cast<unsigned char>(text[at]) % 10));
    }
    return password;
}

std::string hex_of(const std::string &password) {
    char out[appstore::hex_text_buffer];
    EXPECT_TRUE(appstore::password_hex_text(out, password.c_str()));
    return out;
}

TEST(Scramble, RoundTripsReadableByTheReferenceReader) {
    const int32_t ids[] = {7, 42, 906, 5831, 60000, 123456, 9999999, 987654321, 1000000000, 1410065407,
                           1410065408, 1999999999, 2147483647, 0};
    const std::string passwords[] = {"", "a", "Zz", "p@s", "1234", "  sp  ", "~!#$%^", "Pass word", "0123456789"};
    std::set<std::string> texts;
    for (int32_t id : {-908, 1410065407, 1410065408, 2147483647})  // digits wrap like 32-bit arithmetic
        for (int i = 0; i <= 10; ++i) EXPECT_EQ(appstore::id_digit(id, i), reference_digit(id, i)) << id << " " << i;
    for (int32_t id : ids)
        for (const std::string &password : passwords)
            for (unsigned seed : {1u, 77u, 1700000000u}) {
                appstore::app_random generator(seed);
                char text[appstore::scrambled_buffer], back[appstore::hex_text_buffer];
                ASSERT_TRUE(appstore::scramble_app_password(text, id, password.c_str(), generator));
                ASSERT_LE(std::strlen(text), appstore::scrambled_max);
                ASSERT_EQ(std::string(text).find_first_not_of("0123456789abcdef"), std::string::npos) << text;
                EXPECT_EQ(reference_unscramble(text, id), password) << "id " << id << " text " << text;
                ASSERT_TRUE(appstore::unscramble_app_password(back, text, id));
                EXPECT_EQ(back, hex_of(password)) << "id " << id << " text " << text;
                if (id == 42 && password == "p@s") texts.insert(text);
                std::string upper = text;  // hex digits written in upper case read the same
                for (std::size_t i = 0, at = static_cast<unsigned char>(text[upper.size() - 2]) % 6; i < 10; ++i, at += 3) {
                    at += static_cast<std::size_t>(reference_digit(id, static_cast<int>(i)));
                    for (std::size_t d = at + 1; d <= at + 2 && d + 2 < upper.size(); ++d) upper[d] = static_cast<char>(std::toupper(upper[d]));
                }
                ASSERT_TRUE(appstore::unscramble_app_password(back, upper.c_str(), id));
                EXPECT_EQ(back, hex_of(password)) << "id " << id << " text " << upper;
            }
    EXPECT_EQ(texts.size(), 3u);  // fresh randomness: different texts
}

TEST(Scramble, RefusalsDamagedTextsAndHexText) {
    appstore::app_random generator(1);
    char text[appstore::scrambled_buffer], tiny[8], back[appstore::hex_text_buffer];
    std::memset(text, 'X', sizeof text);
    EXPECT_FALSE(appstore::scramble_app_password(text, 5, "01234567890", generator));  // 11 characters
    EXPECT_STREQ(text, "");
    EXPECT_FALSE(appstore::scramble_app_password(tiny, 5, "0123456789", generator));
    EXPECT_STREQ(tiny, "");
    EXPECT_FALSE(appstore::unscramble_app_password(back, "", 5));
    EXPECT_FALSE(appstore::unscramble_app_password(back, "a", 5));
    EXPECT_EQ(hex_of("Az~ "), "417a7e20");
    appstore::app_random fixed(1700000000);  // the draws in the player's order: one text per seed
    ASSERT_TRUE(appstore::scramble_app_password(text, 42, "", fixed));
    EXPECT_STREQ(text, "7fcc0a9a0262c6a9b2347c9ecd79c173138ccb1");
    // Characters from 0x80 print as negative values: they never match what a scrambled text gives back.
    EXPECT_EQ(hex_of("\xc3"), "ffffffc3");
    ASSERT_TRUE(appstore::scramble_app_password(text, 42, "\xc3", generator));
    ASSERT_TRUE(appstore::unscramble_app_password(back, text, 42));
    EXPECT_NE(back, hex_of("\xc3"));
}

}  // namespace
