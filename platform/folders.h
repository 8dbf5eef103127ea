// Folders that the system provides.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

// Where the diagnostic log lies unless it is told otherwise, ending in a separator: the root of the
// system drive, such as "C:\" (GetSystemDirectoryW); "/var/log/" on Linux. Nothing when it cannot
// be told.
[[nodiscard]] std::optional<std::wstring> DefaultLogBase();

// The part of a system directory up to and including its first backslash. Nothing for a text of
// fewer than 2 characters or without a backslash.
[[nodiscard]] std::optional<std::wstring> DriveRootOf(std::wstring_view system_directory);

// The Common Documents folder (SHGetSpecialFolderPathW, CSIDL_COMMON_DOCUMENTS, nothing created)
// without a trailing separator; "/var/lib/keyward" on Linux. Empty when it cannot be had.
[[nodiscard]] std::wstring CommonDocumentsFolder();

}  // namespace platform
