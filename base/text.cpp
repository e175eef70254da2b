#include "base/text.h"


#include <cstdio>
#include <cstring>

namespace base {

bool vformat_into(std::span<char> out, const char *fmt, va_list ap) noexcept {
    if (out.empty()) return false;
    int n = std::vsnprintf(out.data(), out.size(), fmt, ap);
    if (n < 0) {
        out[0] = '\0';
        return false;
    }
    return static_cast<std::size_t>(n) < out.size();
}

bool format_into(std::span<char> out, const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    bool ok = vformat_into(out, fmt, ap);
    va_end(ap);
    return ok;
}

bool copy_text(std::span<char> out, std::string_view text) noexcept {
    if (out.empty()) return false;
    std::size_t n = text.size() < out.size() ? text.size() : out.size() - 1;
    std::memcpy(out.data(), text.data(), n);
    out[n] = '\0';
    return n == text.size();
}

bool append_text(std::span<char> out, std::string_view text) noexcept {
    std::size_t used = ::strnlen(out.data(), out.size());
    if (used >= out.size()) return false;
    return copy_text(out.subspan(used), text);
}

namespace {
char lower(char c) noexcept { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
}  // namespace

bool iequals(std::string_view a, std::string_view b) noexcept {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (lower(a[i]) != lower(b[i])) return false;
    return true;
}

bool icontains(std::string_view haystack, std::string_view needle) noexcept {
    if (needle.empty()) return true;
    if (needle.size() > haystack.size()) return false;
    for (std::size_t i = 0; i + needle.size() <= haystack.size(); ++i)
        if (iequals(haystack.substr(i, needle.size()), needle)) return true;
    return false;
}

bool is_false_word(const char *text) noexcept { return text != nullptr && iequals(text, "false"); }
bool is_true_word(const char *text) noexcept { return text != nullptr && iequals(text, "true"); }

bool starts_with(const char *text, std::string_view prefix) noexcept {
    return text != nullptr && std::strncmp(text, prefix.data(), prefix.size()) == 0;
}

bool is_network_address(const char *path) noexcept {
    return starts_with(path, "smb://") || starts_with(path, "nfs://");
}

}  // namespace base
