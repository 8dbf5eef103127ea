// The standard streams of a console program.
#pragma once

#include <string_view>

namespace platform {

// Write text with line feeds to standard output or standard error: to a terminal in its own
// characters, elsewhere as UTF-8. On Windows a line feed goes out as CR LF. False when not all of
// it could be written (LastError).
[[nodiscard]] bool WriteOutput(std::wstring_view text);
[[nodiscard]] bool WriteErrors(std::wstring_view text);

// Whether standard error is a terminal (isatty, GetConsoleMode).
[[nodiscard]] bool ErrorsGoToTerminal() noexcept;

}  // namespace platform
