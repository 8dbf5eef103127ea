// Letters without their case, as Windows compares names.
#pragma once

namespace platform {

// The upper-case form of one character, whatever the locale. Nothing but an ASCII letter folds to
// an ASCII letter.
[[nodiscard]] wchar_t FoldCase(wchar_t character) noexcept;

}  // namespace platform
