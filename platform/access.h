// Checks the current user's rights to a file or folder without using them. Changes nothing and
// locks nothing.
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

// Whether checking a file opens it. On Windows its security descriptor is read through a handle
// with no other right, which conflicts with no share mode.
#ifdef _WIN32
inline constexpr bool kAccessOpensFiles = true;
#else
inline constexpr bool kAccessOpensFiles = false;
#endif

// Returns false, with LastError set, if the system would refuse access or nothing of this kind
// exists (CreateFileW for a folder, AccessCheck for a file; faccessat with AT_EACCESS).
[[nodiscard]] bool MayAccess(const std::wstring& path, Access access);

// The same for moving a file out of its folder, or deleting it.
[[nodiscard]] bool MayRemove(const std::wstring& path);

// Returns how many bytes the user may still write to the folder's file system (GetDiskFreeSpaceExW,
// statvfs); 0 if bytes are free but no file can be created. std::nullopt if unknown (LastError).
[[nodiscard]] std::optional<std::uint64_t> FreeBytes(const std::wstring& folder);

}  // namespace platform
