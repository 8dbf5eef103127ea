// Shared by all parts of the page.
#pragma once

#include <string>
#include <string_view>

namespace kyd {

// Returns the text escaped for use between tags and in quoted attributes, after Printable.
[[nodiscard]] std::wstring Escaped(std::wstring_view text);

}  // namespace kyd
