// Parses text that a printf-style format has written.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kyd {

// The values of the format's %d and %s, in order.
struct FormatFields {
  std::vector<std::int64_t> numbers;
  std::vector<std::wstring> texts;
};

// Matches a whole text against a format of literal characters, %d with optional zero fill and
// width, and %s, which matches as much as it can. std::nullopt if the text does not match or a
// number has more than 18 digits.
[[nodiscard]] std::optional<FormatFields> MatchFormat(std::wstring_view format,
                                                      std::wstring_view text);

}  // namespace kyd
