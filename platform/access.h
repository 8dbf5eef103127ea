// What the user who runs the program may do with a file or folder, asked without doing it. Nothing
// is changed and nobody is kept from anything.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace platform {

enum class Access {
  kListFolder,
  kAddFile,     // to a folder
  kReadFile,    // a regular file
  kAppendFile,  // to a regular file
};

// Whether asking about a file opens it. On Windows its security descriptor is read through a handle
// that has no other right and is in no way of any share mode.
#ifdef _WIN32
inline constexpr bool kAccessOpensFiles = true;
#else
inline constexpr bool kAccessOpensFiles = false;
#endif

// False, with LastError set, when the system would refuse it, or when there is nothing of this kind
// (CreateFileW for a folder, AccessCheck for a file; faccessat with AT_EACCESS).
[[nodiscard]] bool MayAccess(const std::wstring& path, Access access);

// The same for taking a file out of its folder.
[[nodiscard]] bool MayRemove(const std::wstring& path);

// Bytes that the user may still write where a folder lies (GetDiskFreeSpaceExW, statvfs); 0 when no
// file can be added although there are bytes left. Nothing when that cannot be told (LastError).
[[nodiscard]] std::optional<std::uint64_t> FreeBytes(const std::wstring& folder);

}  // namespace platform
