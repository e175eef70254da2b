// The identity file's password reader over arbitrary texts and ids: the first four bytes are the id, the rest the
// file's text (cut at its first NUL, as the reader sees it). A password scrambled for a storage id (never negative)
// must always read back as its own hex text (printable ASCII passwords: other bytes do not survive the scrambling).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "appstore/scramble.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > 4096) return -1;
    int32_t id;
    std::memcpy(&id, data, sizeof id);
    std::string text(reinterpret_cast<const char *>(data) + 4, size - 4);
    char out[appstore::hex_text_buffer];
    (void)appstore::unscramble_app_password(out, text.c_str(), id);
    char small[3];
    (void)appstore::unscramble_app_password(small, text.c_str(), id);

    if (id < 0) return 0;  // round trip: the first up to 10 bytes as a password
    std::string password(text.c_str(), std::min<std::size_t>(std::strlen(text.c_str()), appstore::password_max));
    if (!std::all_of(password.begin(), password.end(), [](char c) { return c >= 0x20 && c <= 0x7e; })) return 0;
    char scrambled[appstore::scrambled_buffer];
    appstore::app_random random(static_cast<std::time_t>(id));
    if (appstore::scramble_app_password(scrambled, id, password.c_str(), random)) {
        char back[appstore::hex_text_buffer], expected[appstore::hex_text_buffer];
        if (!appstore::unscramble_app_password(back, scrambled, id)) std::abort();
        if (appstore::password_hex_text(expected, password.c_str()) && std::strcmp(back, expected) != 0) std::abort();
    }
    return 0;
}
