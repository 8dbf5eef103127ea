// printf-style messages in buffers of fixed size; longer messages are truncated.
#pragma once

#include <fmt/printf.h>

#include <cstddef>
#include <string>
#include <type_traits>

namespace kyd {

// Buffer sizes in characters, including the terminator.
inline constexpr std::size_t kNarrowMessageCapacity = 260;
inline constexpr std::size_t kWideMessageCapacity = 1024;

namespace format_detail {

template <class T>
const T& Argument(const T& value) {
  return value;
}
// An argument for %s: text ends at its first NUL.
template <class Char>
const Char* Argument(const std::basic_string<Char>& text) {
  return text.c_str();
}

template <class Char>
using Context =
    std::conditional_t<std::is_same_v<Char, char>, fmt::printf_context, fmt::wprintf_context>;

// Not templates: each file that formats would otherwise compile fmt's own formatting again, which
// takes longer than the rest of most files.
std::string Expand(std::size_t capacity, const char* format, fmt::printf_args arguments);
std::wstring Expand(std::size_t capacity, const wchar_t* format, fmt::wprintf_args arguments);

template <class Char, class... Values>
std::basic_string<Char> ExpandValues(std::size_t capacity, const Char* format,
                                     const Values&... values) {
  return Expand(capacity, format, fmt::make_format_args<Context<Char>>(values...));
}

}  // namespace format_detail

// Formats like wsprintf (%d, %u, %s, %c, widths, zero fill): %s takes text of the format's own
// kind, narrow or wide. The result is truncated to `capacity` - 1 characters. Throws std::exception
// for a format that does not match its arguments.
template <class Char, class... Arguments>
std::basic_string<Char> FormatBounded(std::size_t capacity, const Char* format,
                                      const Arguments&... arguments) {
  return format_detail::ExpandValues(capacity, format, format_detail::Argument(arguments)...);
}

}  // namespace kyd
