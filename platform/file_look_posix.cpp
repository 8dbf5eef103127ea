// What really lies under a name.
#include "platform/file_look_posix.h"

#include <fcntl.h>
#include <sys/sysmacros.h>

#include "platform/fd_posix.h"

namespace platform {

Entry LookAt(const std::string& path) noexcept {
  Entry entry;
  struct statx status;
  const int result = Uninterrupted([&] {
    return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_STATX_FORCE_SYNC,
                 STATX_BASIC_STATS, &status);
  });
  if (result != 0) {
    entry.error_number = errno;
    return entry;
  }
  entry.device = makedev(status.stx_dev_major, status.stx_dev_minor);
  entry.inode = status.stx_ino;
  entry.mode = status.stx_mode;
  entry.links = status.stx_nlink;
  entry.size = static_cast<off_t>(status.stx_size);
  return entry;
}

Entry EntryOf(const struct stat& status) noexcept {
  return {0, status.st_dev, status.st_ino, status.st_mode, status.st_nlink, status.st_size};
}

bool IsSame(const Entry& a, const Entry& b) noexcept {
  return a.IsPresent() && b.IsPresent() && a.device == b.device && a.inode == b.inode;
}

bool HasLost(const Entry& name, const Entry& file) noexcept {
  return name.IsAbsent() || (name.IsPresent() && file.IsPresent() && !IsSame(name, file));
}

}  // namespace platform
