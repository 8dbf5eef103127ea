// The standard streams of a console program.
#pragma once

#include <string_view>

namespace platform {

// Write text with line feeds to standard output or standard error: in the encoding of a terminal,
// otherwise as UTF-8. On Windows a line feed is written as CR LF. Return false if not all of it
// could be written (LastError).
[[nodiscard]] bool WriteOutput(std::wstring_view text);
[[nodiscard]] bool WriteErrors(std::wstring_view text);

// Whether standard error is a terminal (isatty, GetConsoleMode).
[[nodiscard]] bool ErrorsGoToTerminal() noexcept;

}  // namespace platform
