// What every part of the page needs.
#pragma once

#include <string>
#include <string_view>

namespace kyd {

// Text as it may stand between tags and in quoted attributes, and safe to look at (Printable).
[[nodiscard]] std::wstring Escaped(std::wstring_view text);

}  // namespace kyd
