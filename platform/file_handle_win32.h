// Shared by the Windows files: owned handles of files and folders, and file times.
#pragma once

#include <windows.h>

#include <cstdint>

#include "platform/unique_handle.h"

namespace platform {

struct FileCloser {
  using Value = HANDLE;
  static inline const Value kInvalid = INVALID_HANDLE_VALUE;
  // Preserves the error number.
  static void Close(Value file) noexcept {
    const DWORD error = GetLastError();
    CloseHandle(file);
    ::SetLastError(error);
  }
};
using UniqueFile = UniqueHandle<FileCloser>;

// Combines the two halves of a number that the system returns.
constexpr std::uint64_t Joined(DWORD high, DWORD low) noexcept {
  return (std::uint64_t{high} << 32) | low;
}

// Returns whole seconds since 1970. A FILETIME counts 100 ns since 1601.
constexpr std::int64_t SecondsSince1970(const FILETIME& time) noexcept {
  constexpr std::int64_t kTicksPerSecond = 10'000'000;
  constexpr std::int64_t kSecondsFrom1601To1970 = 11'644'473'600;
  const auto ticks = static_cast<std::int64_t>(Joined(time.dwHighDateTime, time.dwLowDateTime));
  return ticks / kTicksPerSecond - kSecondsFrom1601To1970;
}

}  // namespace platform
