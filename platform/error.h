// The error number of the calling thread's last failed platform operation.
#pragma once

namespace platform {

// Windows error numbers (winerror.h) on both platforms, so that log lines are the same.
inline constexpr unsigned kErrorFileNotFound = 2;
inline constexpr unsigned kErrorPathNotFound = 3;
inline constexpr unsigned kErrorAccessDenied = 5;
inline constexpr unsigned kErrorNoMoreFiles = 18;
inline constexpr unsigned kErrorGeneralFailure = 31;
inline constexpr unsigned kErrorSharingViolation = 32;
inline constexpr unsigned kErrorDiskFull = 112;
inline constexpr unsigned kErrorAlreadyExists = 183;
inline constexpr unsigned kErrorBadFormat = 193;
inline constexpr unsigned kErrorFileNameTooLong = 206;

// Whether the error says that the file, or a folder of its path, does not exist.
[[nodiscard]] constexpr bool IsMissing(unsigned error) noexcept {
  return error == kErrorFileNotFound || error == kErrorPathNotFound;
}

// GetLastError. Every failing operation of this folder sets it; a successful one may leave it
// unchanged. Read it in the statement after the failing call.
[[nodiscard]] unsigned LastError() noexcept;

// SetLastError. Lets cleanup code restore the number that is being reported.
void SetLastError(unsigned error) noexcept;

}  // namespace platform
