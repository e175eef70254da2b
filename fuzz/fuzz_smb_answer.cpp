// The lister of the network client's answer file over arbitrary bytes. The first byte picks the request's flags and
// media filter; the rest is the answer file. With its cache flag the page also goes to the listing cache, which a
// second reading then answers from.
#include <array>

#include "fuzz/fuzz_common.h"
#include "listing/list_command.h"
#include "listing/network.h"

namespace {
constexpr const char *answer_file = "/tmp/fuzz_smb.out";
constexpr const char *cache = "/tmp/fuzz_usr_file_list";
constexpr std::array<const char *, 8> filters{"", "video", "music", "photo", "torrent", "others", "bogus", nullptr};
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return fuzz::require_sandbox(), 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > 65536) return -1;
    unsigned flags = data[0];
    if (!fuzz::write_file(answer_file, data + 1, size - 1)) return 0;
    listing::network_listing request;
    request.want_folders = (flags & 1) != 0;
    request.want_files = (flags & 2) != 0;
    request.with_details = (flags & 4) != 0;
    request.filter_word = filters[(flags >> 3) & 7];
    listing::listing_key key = listing::make_listing_key(0, 99999, request.want_folders, request.want_files, 0,
                                                         request.filter_word, "smb://nas/public");
    bool cached = (flags & 0x40) != 0;
    if (cached) {
        ::unlink(cache);
        request.cache_key = &key;
    }
    {
        fuzz::response answer;
        (void)listing::list_network_folder(answer.slot(), "smb://nas/public", request, answer_file);
    }
    if (cached) {
        fuzz::response answer;
        (void)listing::cache_lookup(answer.slot(), key, "smb://nas/public", request.with_details, cache);
    }
    return 0;
}
