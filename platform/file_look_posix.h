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
  int error_number = 0;  // 0: the entry exists. ENOENT: it does not. Others: unknown
  // The other members are valid only if the entry exists.
  dev_t device = 0;
  ino_t inode = 0;
  mode_t mode = 0;
  nlink_t links = 0;
  off_t size = 0;
  std::int64_t changed = 0;  // of content or entry, in nanoseconds
  bool is_cached = false;    // possibly from the cache of a network file system

  [[nodiscard]] bool IsPresent() const noexcept { return error_number == 0; }
  [[nodiscard]] bool IsAbsent() const noexcept { return error_number == ENOENT; }
};

// Does not follow links. Bypasses the cache of a network file system (statx with
// AT_STATX_FORCE_SYNC), unless the process may not use statx (then fstatat, is_cached).
[[nodiscard]] Entry LookAt(const std::string& path) noexcept;

[[nodiscard]] Entry EntryOf(const struct stat& status) noexcept;

// Whether both exist and are the same file (device and inode). Unknown is not the same.
[[nodiscard]] bool IsSame(const Entry& a, const Entry& b) noexcept;

// The same without a cache: reliable enough to remove another name or a copy of the file.
[[nodiscard]] bool IsVerifiedSame(const Entry& a, const Entry& b) noexcept;

// Whether the name verifiably no longer refers to the file: it is missing, or another file.
[[nodiscard]] bool HasLost(const Entry& name, const Entry& file) noexcept;

// Whether it is the same file, unchanged in between. Device and inode are not enough: a new file
// may reuse those of a removed one.
[[nodiscard]] bool IsUntouched(const Entry& now, const Entry& before) noexcept;

// Repeats an interrupted call that removes this name of the file, but only while the name still
// refers to the file: if the call was performed, the name may belong to another process by now.
// Fails with EIO then.
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

// Creates an empty entry of this type (S_IFREG, S_IFDIR) that must not exist yet. `make` is open(2)
// with O_EXCL or mkdir(2); a negative result is a failure. Returns 0 or an errno value, EEXIST for
// an entry that is not ours. Also returns 0 if `make` reports failure, but an empty entry exists
// now and none existed before.
[[nodiscard]] int MakeNew(const std::string& path, mode_t type, const std::function<int()>& make);

}  // namespace platform
