// The definition of the hourly task, with the tenant and log directory that the installer was
// given.
#pragma once

#include <string>

namespace kyd::setup {

// Whether the text can be the tenant: a host name or address, perhaps with a port.
[[nodiscard]] bool IsTenant(const std::wstring& text);

// Whether the text can be a log directory: an absolute path of a drive or share, without characters
// that Windows allows in no path.
[[nodiscard]] bool IsLogDir(const std::wstring& text);

// Without separators at the end, unless it is the root of a drive.
[[nodiscard]] std::wstring WithoutTrailingSeparators(std::wstring path);

// The text as one argument of a command line, as CommandLineToArgvW splits it.
[[nodiscard]] std::wstring AsArgument(const std::wstring& text);

// The definition with these arguments in place of its own. Empty if it has no place for arguments.
[[nodiscard]] std::wstring WithArguments(const std::wstring& definition, const std::wstring& tenant,
                                         const std::wstring& log_dir);

}  // namespace kyd::setup
