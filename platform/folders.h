// Folders that the system provides.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

// Returns the default base folder of the diagnostic log, ending in a separator: the root of the
// system drive, such as "C:\" (GetSystemDirectoryW); "/var/log/" on Linux. std::nullopt if unknown.
[[nodiscard]] std::optional<std::wstring> DefaultLogBase();

// Returns the part of a system directory up to and including its first backslash. std::nullopt for
// a text of fewer than 2 characters or without a backslash.
[[nodiscard]] std::optional<std::wstring> DriveRootOf(std::wstring_view system_directory);

// Returns the Common Documents folder (SHGetSpecialFolderPathW, CSIDL_COMMON_DOCUMENTS, nothing
// created) without a trailing separator; "/var/lib/keyward" on Linux. Empty if unavailable.
[[nodiscard]] std::wstring CommonDocumentsFolder();

}  // namespace platform
