// The definition of the hourly task, with the installer's tenant and log directory.
#pragma once

#include <string>

namespace kyd::setup {

// Whether the text is a valid tenant: a host name or address with an optional port.
[[nodiscard]] bool IsTenant(const std::wstring& text);

// Whether the text is a valid log directory: an absolute path on a drive or share, without
// characters that Windows does not allow in paths.
[[nodiscard]] bool IsLogDir(const std::wstring& text);

// Removes trailing separators, except from the root of a drive.
[[nodiscard]] std::wstring WithoutTrailingSeparators(std::wstring path);

// Returns the text as one command-line argument, quoted for CommandLineToArgvW.
[[nodiscard]] std::wstring AsArgument(const std::wstring& text);

// Returns the definition with its arguments replaced; empty if it has no element for them.
[[nodiscard]] std::wstring WithArguments(const std::wstring& definition, const std::wstring& tenant,
                                         const std::wstring& log_dir);

}  // namespace kyd::setup
