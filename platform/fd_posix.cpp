// Owned file descriptors, and the calls on them that a signal may interrupt.
#include "platform/fd_posix.h"

#include "platform/errno_posix.h"
#include "platform/error.h"

namespace platform {

UniqueFd OpenRegularFile(const std::string& path, int flags, mode_t mode, struct stat& status) {
  int raw = -1;
  do {
    raw = open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode);
  } while (raw < 0 && errno == EINTR);
  if (raw < 0) {
    // A FIFO without a reader and a socket say ENXIO.
    const int error_number = errno == ENXIO ? EACCES : errno;
    RecordErrno(error_number, path);
    return {};
  }
  UniqueFd fd(raw);
  if (fstat(fd.Get(), &status) != 0) {
    RecordErrno(errno, path);
    return {};
  }
  if (!S_ISREG(status.st_mode)) {
    SetLastError(kErrorAccessDenied);
    return {};
  }
  return fd;
}

UniqueFd OpenRegularFile(const std::string& path, int flags, mode_t mode) {
  struct stat status;
  return OpenRegularFile(path, flags, mode, status);
}

ssize_t ReadOnce(int fd, void* buffer, std::size_t size) noexcept {
  ssize_t count = 0;
  do {
    count = read(fd, buffer, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

ssize_t ReadOnceAt(int fd, void* buffer, std::size_t size, off_t offset) noexcept {
  ssize_t count = 0;
  do {
    count = pread(fd, buffer, size, offset);
  } while (count < 0 && errno == EINTR);
  return count;
}

ssize_t WriteOnce(int fd, const void* bytes, std::size_t size) noexcept {
  ssize_t count = 0;
  do {
    count = write(fd, bytes, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

bool WriteAll(int fd, const char* bytes, std::size_t size) noexcept {
  while (size > 0) {
    const ssize_t count = WriteOnce(fd, bytes, size);
    if (count < 0) {
      return false;
    }
    if (count == 0) {
      errno = ENOSPC;  // No regular file does this; were it one, the loop would not end.
      return false;
    }
    bytes += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace platform
