// What a name really refers to, checked after a call whose result alone is not reliable.
//
// A call that reports failure may have done its work: a network file system repeats a request whose
// answer was lost, and the repeated one finds the work done.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>

#include "platform/fd_posix.h"

namespace platform {

struct Entry {
  int error_number = 0;  // 0: there is an entry. ENOENT: there is none. Others: unknown
  // The rest is valid only if there is an entry.
  dev_t device = 0;
  ino_t inode = 0;
  mode_t mode = 0;
  nlink_t links = 0;
  off_t size = 0;
  std::int64_t changed = 0;  // of content or entry, in nanoseconds
  bool is_cached = false;    // as a network file system may remember it

  [[nodiscard]] bool IsPresent() const noexcept { return error_number == 0; }
  [[nodiscard]] bool IsAbsent() const noexcept { return error_number == ENOENT; }
};

// Does not follow links. Bypasses the cache of a network file system (statx with
// AT_STATX_FORCE_SYNC), unless the process may not use statx (then fstatat, is_cached).
[[nodiscard]] Entry LookAt(const std::string& path) noexcept;

[[nodiscard]] Entry EntryOf(const struct stat& status) noexcept;

// Whether both exist and are the same file (device and inode). Unknown is not the same.
[[nodiscard]] bool IsSame(const Entry& a, const Entry& b) noexcept;

// The same without a cache: sure enough to remove another name or a copy of the file.
[[nodiscard]] bool IsVerifiedSame(const Entry& a, const Entry& b) noexcept;

// Whether the name verifiably no longer refers to the file: nothing is there, or another file.
[[nodiscard]] bool HasLost(const Entry& name, const Entry& file) noexcept;

// Whether it is the same file and nobody has touched it in between. Device and inode are not
// enough: a new file may have those of one that is gone.
[[nodiscard]] bool IsUntouched(const Entry& now, const Entry& before) noexcept;

// Repeats an interrupted call that takes the file away from this name, but only while the file is
// still there: if the call was done, the name may be another's by now. Fails with EIO then.
template <class Call>
int TakeAway(const std::string& name, const Call& call) noexcept {
  const Entry before = LookAt(name);
  return Uninterrupted([&] {
    const int result = call();
    if (result < 0 && errno == EINTR && !IsUntouched(LookAt(name), before)) {
      errno = EIO;
    }
    return result;
  });
}

// Makes an entry that must not exist yet, empty and of this type (S_IFREG, S_IFDIR). `make` is
// open(2) with O_EXCL or mkdir(2); a negative result is a failure. Gives 0 or an errno value,
// EEXIST for an entry of another's. 0 as well when `make` reports failure but an empty entry is
// there then and none was before.
[[nodiscard]] int MakeNew(const std::string& path, mode_t type, const std::function<int()>& make);

}  // namespace platform
