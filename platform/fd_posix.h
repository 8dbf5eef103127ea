// Owned file descriptors, the calls on them that a signal may interrupt, and the mapping of errno
// to Windows error numbers.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>

#include "platform/unique_handle.h"

namespace platform {

struct FdCloser {
  using Value = int;
  static constexpr Value kInvalid = -1;
  // Preserves errno. Linux frees the descriptor even if close is interrupted.
  static void Close(Value fd) noexcept {
    const int error_number = errno;
    close(fd);
    errno = error_number;
  }
};
using UniqueFd = UniqueHandle<FdCloser>;

// Returns the Windows error number of an errno value. ENOENT means a missing file here; see
// RecordErrno.
[[nodiscard]] unsigned NumberOfErrno(int error_number) noexcept;

// Sets LastError from the errno value of a call that failed for a path, and distinguishes a missing
// file from a missing parent folder.
void RecordErrno(int error_number, const std::string& path);

// Repeats a call that a signal interrupted and returns its last result. The number of attempts is
// limited, in case a broken system interrupts every one.
template <class Call>
auto Uninterrupted(const Call& call) noexcept(noexcept(call())) {
  constexpr int kMostAttempts = 1000;
  auto result = call();
  for (int attempt = 1; result < 0 && errno == EINTR && attempt < kMostAttempts; ++attempt) {
    result = call();
  }
  return result;
}

// stat(2) and fstat(2), repeated when interrupted.
[[nodiscard]] int Stat(const char* path, struct stat& status) noexcept;
[[nodiscard]] int Fstat(int fd, struct stat& status) noexcept;

// Whether an errno value means that the file system does not support the call, or not for this type
// of file.
[[nodiscard]] constexpr bool IsUnsupported(int error_number) noexcept {
  return error_number == EINVAL || error_number == ENOSYS || error_number == EOPNOTSUPP ||
         error_number == EBADF;
}

// Opens a regular file or a link to one. Waits only for another holder's lease (open(2) with
// O_CLOEXEC, O_NOCTTY and O_NONBLOCK in addition to `flags`). Invalid on failure (LastError);
// kErrorAccessDenied for anything but a regular file. `status` receives the result of fstat.
[[nodiscard]] UniqueFd OpenRegularFile(const std::string& path, int flags, mode_t mode,
                                       struct stat& status);
[[nodiscard]] UniqueFd OpenRegularFile(const std::string& path, int flags, mode_t mode = 0);

// flock(2) without waiting, repeated when interrupted. Returns false with errno set: EWOULDBLOCK if
// another process holds the lock, IsMissingLock if the file system has no locks.
[[nodiscard]] bool TryLock(int fd, int operation) noexcept;

// Whether an errno value of flock means that the file system has no locks.
[[nodiscard]] constexpr bool IsMissingLock(int error_number) noexcept {
  return IsUnsupported(error_number) || error_number == ENOLCK;
}

// read(2), repeated when interrupted.
[[nodiscard]] ssize_t ReadOnce(int fd, void* buffer, std::size_t size) noexcept;

// pread(2), repeated when interrupted.
[[nodiscard]] ssize_t ReadOnceAt(int fd, void* buffer, std::size_t size, off_t offset) noexcept;

// write(2), repeated when interrupted.
[[nodiscard]] ssize_t WriteOnce(int fd, const void* bytes, std::size_t size) noexcept;

// Writes all bytes. Returns false, with errno set, on failure.
[[nodiscard]] bool WriteAll(int fd, const char* bytes, std::size_t size) noexcept;

}  // namespace platform
