// What every part of the page needs.
#pragma once

#include <string>
#include <string_view>

namespace kyd {

// The text escaped for use between tags and in quoted attributes, and made Printable.
[[nodiscard]] std::wstring Escaped(std::wstring_view text);

}  // namespace kyd
