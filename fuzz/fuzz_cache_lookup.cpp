// The listing-cache lookup over arbitrary cache-file bytes. The first byte
// picks the key asked for (so records the input spells out can match); the
// rest is the cache file.
#include "fuzz/fuzz_common.h"
#include "listing/list_command.h"

namespace {
constexpr const char *cache = "/tmp/fuzz_usr_file_list";
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return fuzz::require_sandbox(), 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > 262144) return -1;
    unsigned pick = data[0];
    if (!fuzz::write_file(cache, data + 1, size - 1)) return 0;
    const char *path = (pick & 1) != 0 ? "USB_DRIVE_A-1/Music" : "";
    listing::listing_key key =
        listing::make_listing_key((pick >> 1) & 3, (pick & 8) != 0 ? 99999 : 0, (pick & 16) != 0, (pick & 32) != 0,
                                  (pick >> 6) & 3, (pick & 1) != 0 ? "music" : "", path);
    fuzz::response answer;
    (void)listing::cache_lookup(answer.slot(), key, path, (pick & 128) != 0, cache);
    return 0;
}
