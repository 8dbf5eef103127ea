// printf-style messages in buffers of fixed size: never overrun, cut when they are longer.
#pragma once

#include <fmt/printf.h>

#include <cstddef>
#include <string>

namespace kyd {

// Buffer sizes in characters, the terminator included.
inline constexpr std::size_t kNarrowMessageCapacity = 260;
inline constexpr std::size_t kWideMessageCapacity = 1024;

namespace format_detail {

template <class T>
const T& Argument(const T& value) {
  return value;
}
// As %s takes it: text ends at its first NUL.
template <class Char>
const Char* Argument(const std::basic_string<Char>& text) {
  return text.c_str();
}

}  // namespace format_detail

// Expands a printf-style format (%d, %u, %s, %c, widths, zero fill) as wsprintf does: %s takes text
// of the format's own kind, narrow or wide. The result is cut at `capacity` - 1 characters. Throws
// std::exception for a format that does not fit its arguments.
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
