// Owned file descriptors, and the calls on them that a signal may interrupt.
#include "platform/fd_posix.h"

#include <sys/file.h>

#include "platform/error.h"

namespace platform {

namespace {

// Opens a file whose lease or delegation another holder must release first; the kernel limits the
// wait. The file is pinned in the meantime: opening a FIFO that replaced it would block forever.
int OpenBehindLease(const std::string& path, int flags) {
  const UniqueFd pinned(
      Uninterrupted([&] { return open(path.c_str(), O_PATH | O_CLOEXEC | (flags & O_NOFOLLOW)); }));
  struct stat status;
  if (!pinned || Fstat(pinned.Get(), status) != 0 || !S_ISREG(status.st_mode)) {
    errno = EAGAIN;
    return -1;
  }
  const std::string name = "/proc/self/fd/" + std::to_string(pinned.Get());
  const int waiting = (flags & ~(O_CREAT | O_EXCL | O_NOFOLLOW)) | O_CLOEXEC | O_NOCTTY;
  return Uninterrupted([&] { return open(name.c_str(), waiting); });
}

}  // namespace

UniqueFd OpenRegularFile(const std::string& path, int flags, mode_t mode, struct stat& status) {
  int raw = Uninterrupted(
      [&] { return open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode); });
  if (raw < 0 && errno == EAGAIN) {
    raw = OpenBehindLease(path, flags);
  }
  if (raw < 0) {
    // ENXIO means a socket, or a FIFO without a reader.
    const int error_number = errno == ENXIO ? EACCES : errno;
    RecordErrno(error_number, path);
    return {};
  }
  UniqueFd fd(raw);
  if (Fstat(fd.Get(), status) != 0) {
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

int Stat(const char* path, struct stat& status) noexcept {
  return Uninterrupted([&] { return stat(path, &status); });
}

int Fstat(int fd, struct stat& status) noexcept {
  return Uninterrupted([&] { return fstat(fd, &status); });
}

bool TryLock(int fd, int operation) noexcept {
  return Uninterrupted([=] { return flock(fd, operation | LOCK_NB); }) == 0;
}

ssize_t ReadOnce(int fd, void* buffer, std::size_t size) noexcept {
  return Uninterrupted([=] { return read(fd, buffer, size); });
}

ssize_t ReadOnceAt(int fd, void* buffer, std::size_t size, off_t offset) noexcept {
  return Uninterrupted([=] { return pread(fd, buffer, size, offset); });
}

ssize_t WriteOnce(int fd, const void* bytes, std::size_t size) noexcept {
  return Uninterrupted([=] { return write(fd, bytes, size); });
}

bool WriteAll(int fd, const char* bytes, std::size_t size) noexcept {
  while (size > 0) {
    const ssize_t count = WriteOnce(fd, bytes, size);
    if (count < 0) {
      return false;
    }
    if (count == 0) {
      errno = ENOSPC;  // never on a regular file; without this, the loop would not end
      return false;
    }
    bytes += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace platform
