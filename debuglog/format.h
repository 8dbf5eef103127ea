// printf-style messages in buffers of fixed size; longer messages are truncated.
#pragma once

#include <fmt/printf.h>

#include <cstddef>
#include <string>

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

}  // namespace format_detail

// Formats like wsprintf (%d, %u, %s, %c, widths, zero fill): %s takes text of the format's own
// kind, narrow or wide. The result is truncated to `capacity` - 1 characters. Throws std::exception
// for a format that does not match its arguments.
template <class Char, class... Arguments>
std::basic_string<Char> FormatBounded(std::size_t capacity, const Char* format,
                                      const Arguments&... arguments) {
  std::basic_string<Char> text =
      fmt::sprintf(fmt::basic_string_view<Char>(format), format_detail::Argument(arguments)...);
  if (text.size() >= capacity) {
    text.resize(capacity - 1);
  }
  return text;
}

}  // namespace kyd
