// Bounded text: path buffers, formatting and copying into fixed buffers,
// argument words. Everything here is re-entrant: the host calls the plug-in
// from several request threads and batch threads run beside them.
#pragma once

#include <sys/types.h>

#include <cstdarg>
#include <cstddef>
#include <span>
#include <string_view>

static_assert(sizeof(off_t) == 8, "build with _FILE_OFFSET_BITS=64");

namespace base {

inline constexpr std::size_t path_max = 4096;  // the size of every path buffer
using path_buffer = char[path_max];

// snprintf into a fixed buffer; false when the text did not fit (the buffer
// then holds a truncated, terminated text) or formatting failed. Client text
// is only ever passed as an argument of "%s", never as the format.
[[gnu::format(printf, 2, 3)]] bool format_into(std::span<char> out, const char *fmt, ...) noexcept;
bool vformat_into(std::span<char> out, const char *fmt, va_list ap) noexcept;

// Copies text into out; false (and out left holding a terminated prefix)
// when it does not fit with its NUL.
bool copy_text(std::span<char> out, std::string_view text) noexcept;
// Appends text to the terminated text in out; false when it does not fit.
bool append_text(std::span<char> out, std::string_view text) noexcept;

// Text parameters: only "false" (any case) clears a flag that defaults to
// on, only "true" (any case) sets one that defaults to off. Null is neither.
bool is_false_word(const char *text) noexcept;
bool is_true_word(const char *text) noexcept;

bool starts_with(const char *text, std::string_view prefix) noexcept;
bool iequals(std::string_view a, std::string_view b) noexcept;
// strcasestr without relying on the C library's extension.
bool icontains(std::string_view haystack, std::string_view needle) noexcept;

// "smb://" or "nfs://" in the first six characters, case-sensitive.
bool is_network_address(const char *path) noexcept;

}  // namespace base
