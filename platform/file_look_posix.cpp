// Finds out what a name really refers to.
#include "platform/file_look_posix.h"

#include <fcntl.h>
#include <sys/sysmacros.h>

namespace platform {
namespace {

// System call filters that are older than statx reject it with EPERM or ENOSYS; the C library's
// emulation rejects the flag with EINVAL.
bool IsRefused(int error_number) noexcept {
  return error_number == EPERM || error_number == ENOSYS || error_number == EINVAL;
}

std::int64_t Nanoseconds(std::int64_t seconds, std::int64_t nanoseconds) noexcept {
  return seconds * 1'000'000'000 + nanoseconds;
}

Entry LookWithoutStatx(const std::string& path) noexcept {
  struct stat status;
  if (Uninterrupted(
          [&] { return fstatat(AT_FDCWD, path.c_str(), &status, AT_SYMLINK_NOFOLLOW); }) == 0) {
    Entry entry = EntryOf(status);
    entry.is_cached = true;
    return entry;
  }
  Entry entry;
  entry.error_number = errno;
  return entry;
}

// Whether an entry looks like the result of an exclusive creation.
bool IsNew(const Entry& entry, mode_t type) noexcept {
  return entry.IsPresent() && (entry.mode & S_IFMT) == type && (type != S_IFREG || entry.size == 0);
}

}  // namespace

Entry LookAt(const std::string& path) noexcept {
  Entry entry;
  struct statx status;
  const int result = Uninterrupted([&] {
    return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_STATX_FORCE_SYNC,
                 STATX_BASIC_STATS, &status);
  });
  if (result != 0) {
    if (IsRefused(errno)) {
      return LookWithoutStatx(path);
    }
    entry.error_number = errno;
    return entry;
  }
  entry.device = makedev(status.stx_dev_major, status.stx_dev_minor);
  entry.inode = status.stx_ino;
  entry.mode = status.stx_mode;
  entry.links = status.stx_nlink;
  entry.size = static_cast<off_t>(status.stx_size);
  entry.changed = Nanoseconds(status.stx_ctime.tv_sec, status.stx_ctime.tv_nsec);
  return entry;
}

Entry EntryOf(const struct stat& status) noexcept {
  return {0,
          status.st_dev,
          status.st_ino,
          status.st_mode,
          status.st_nlink,
          status.st_size,
          Nanoseconds(status.st_ctim.tv_sec, status.st_ctim.tv_nsec),
          false};
}

bool IsSame(const Entry& a, const Entry& b) noexcept {
  return a.IsPresent() && b.IsPresent() && a.device == b.device && a.inode == b.inode;
}

bool IsUntouched(const Entry& now, const Entry& before) noexcept {
  return IsSame(now, before) && now.changed == before.changed;
}

bool IsVerifiedSame(const Entry& a, const Entry& b) noexcept {
  return IsSame(a, b) && !a.is_cached && !b.is_cached;
}

bool HasLost(const Entry& name, const Entry& file) noexcept {
  return name.IsAbsent() || (name.IsPresent() && file.IsPresent() && !IsSame(name, file));
}

int MakeNew(const std::string& path, mode_t type, const std::function<int()>& make) {
  const Entry before = LookAt(path);
  if (!before.IsAbsent()) {
    return before.IsPresent() ? EEXIST : before.error_number;
  }
  int error_number = 0;
  // Repeated only while nothing is there: an interrupted call may have created the entry.
  const int result = Uninterrupted([&] {
    const int made = make();
    error_number = made < 0 ? errno : 0;
    // EEXIST: as far as can be determined, the entry is not ours.
    if (made < 0 && error_number != EEXIST && IsNew(LookAt(path), type)) {
      error_number = 0;
    }
    errno = error_number;
    return error_number == 0 ? 0 : -1;
  });
  return result == 0 ? 0 : error_number;
}

}  // namespace platform
