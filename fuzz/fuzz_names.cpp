// The MIME lookup by path and the natural name order over arbitrary texts.
// The input is split at its first NUL into two names. The order must be a
// consistent comparison: antisymmetric, reflexive, and the same whether the
// names are compared as given or through the listing comparators.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "listing/order.h"
#include "storage/mime.h"

namespace {
int sign(int v) { return (v > 0) - (v < 0); }
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    storage::sort_mime_table();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 8192) return -1;
    std::string all(reinterpret_cast<const char *>(data), size);
    std::size_t cut = all.find('\0');
    std::string a = all.substr(0, cut);
    std::string b = cut == std::string::npos ? std::string() : all.substr(cut + 1);
    b = b.c_str();  // up to a second NUL

    const char *type = storage::mime_type_for_path(a.c_str());
    if (type == nullptr || type[0] == '\0') std::abort();
    (void)storage::mime_type_for_path(b.c_str());

    int ab = listing::natural_compare(a.c_str(), b.c_str());
    int ba = listing::natural_compare(b.c_str(), a.c_str());
    if (sign(ab) != -sign(ba)) std::abort();
    if (listing::natural_compare(a.c_str(), a.c_str()) != 0) std::abort();

    listing::sort_entry ea, eb;
    ea.name = a.c_str();
    eb.name = b.c_str();
    if (sign(listing::compare_name_ascending(ea, eb)) != -sign(listing::compare_name_ascending(eb, ea)))
        std::abort();
    return 0;
}
