// One owner per machine through a locked file, or an abstract socket where files cannot be locked.
#include "platform/single_instance.h"

#include <sys/file.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <optional>
#include <sstream>

#include "platform/error.h"
#include "platform/fd_posix.h"
#include "platform/single_instance_posix.h"
#include "platform/sysroot_posix.h"
#include "platform/text.h"

namespace platform {
namespace {

// Any user may lock the file, regardless of its owner: read access is enough.
constexpr mode_t kLockFileMode = 0644;

// Opens or creates the lock file. Two steps: in a world-writable folder the kernel can refuse
// O_CREAT for a file that another user created (fs.protected_regular).
UniqueFd OpenLockFile(const std::string& path) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    UniqueFd existing = OpenRegularFile(path, O_RDONLY | O_NOFOLLOW);
    if (existing || LastError() != kErrorFileNotFound) {
      return existing;
    }
    // The first user's umask must not lock the others out, not even if the process ends here.
    const mode_t mask = umask(0);
    UniqueFd made = OpenRegularFile(path, O_RDONLY | O_NOFOLLOW | O_CREAT | O_EXCL, kLockFileMode);
    umask(mask);
    if (made || LastError() != kErrorAlreadyExists) {
      return made;
    }
  }
  return {};
}

std::string LockPath(const std::wstring& name) {
  return UnderSysroot("/run/lock/" + ToNativePath(name));
}

// Returns the socket name that represents a lock file.
std::string PlaceName(const struct stat& lock_file) {
  return "kyd-instance-" + std::to_string(lock_file.st_dev) + "-" +
         std::to_string(lock_file.st_ino);
}

// Replaces the lock where files cannot be locked: an abstract Unix socket (unix(7)), which the
// kernel also releases when the process ends. Its name contains the lock file's device and inode,
// so that only runs that share the file exclude each other.
UniqueFd BindInPlaceOfLock(const UniqueFd& lock_file) {
  struct stat status;
  UniqueFd place(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!place || Fstat(lock_file.Get(), status) != 0) {
    SetLastError(NumberOfErrno(errno));
    return {};
  }
  const std::string name = PlaceName(status);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1,
            sizeof address.sun_path - 1);  // after the NUL that starts such names
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  if (bind(place.Get(), reinterpret_cast<const sockaddr*>(&address), size) != 0) {
    SetLastError(errno == EADDRINUSE ? kErrorAlreadyExists : NumberOfErrno(errno));
    return {};
  }
  return place;
}

bool MayMakeLockFile() {
  const std::string folder = UnderSysroot("/run/lock");
  if (faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
    RecordErrno(errno, folder);
    return false;
  }
  return true;
}

// Returns a kernel table; std::nullopt, with LastError set, if it cannot be read.
std::optional<std::string> ReadTable(const char* path) {
  const UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
  std::string text;
  std::array<char, 4096> buffer;
  ssize_t count = file ? 1 : -1;
  while (count > 0) {
    count = ReadOnce(file.Get(), buffer.data(), buffer.size());
    text.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  }
  if (count < 0) {
    RecordErrno(errno, path);
    return std::nullopt;
  }
  return text;
}

}  // namespace

bool HoldsExclusiveFlock(std::string_view locks, unsigned major_number, unsigned minor_number,
                         std::uint64_t inode) {
  // For example "3: FLOCK  ADVISORY  WRITE 4711 fd:01:1234 0 EOF"; a waiting request has "->"
  // before FLOCK.
  std::istringstream lines{std::string(locks)};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string number, kind, how, mode, process, file;
    words >> number >> kind >> how >> mode >> process >> file;
    unsigned major_found = 0;
    unsigned minor_found = 0;
    std::uint64_t inode_found = 0;
    if (kind == "FLOCK" && mode == "WRITE" &&
        // NOLINTNEXTLINE(cert-err34-c): the kernel writes only numbers that fit
        std::sscanf(file.c_str(), "%x:%x:%" SCNu64, &major_found, &minor_found, &inode_found) ==
            3 &&
        major_found == major_number && minor_found == minor_number && inode_found == inode) {
      return true;
    }
  }
  return false;
}

InstanceOwner OwnerOfInstance(const std::wstring& name) {
  // Opened as the owner would open it, but never locked: even a brief lock would make a program
  // that starts at the same time exit.
  struct stat status;
  const UniqueFd file = OpenRegularFile(LockPath(name), O_RDONLY | O_NOFOLLOW, 0, status);
  if (!file) {
    const bool is_free = LastError() == kErrorFileNotFound && MayMakeLockFile();
    return is_free ? InstanceOwner::kNone : InstanceOwner::kUnavailable;
  }
  const std::optional<std::string> locks = ReadTable("/proc/locks");
  if (!locks) {
    return InstanceOwner::kUnknown;
  }
  if (HoldsExclusiveFlock(*locks, major(status.st_dev), minor(status.st_dev), status.st_ino)) {
    return InstanceOwner::kAnotherProcess;
  }
  const std::string sockets = ReadTable("/proc/net/unix").value_or("");
  const bool is_bound = sockets.find("@" + PlaceName(status) + "\n") != std::string::npos;
  return is_bound ? InstanceOwner::kAnotherProcess : InstanceOwner::kNone;
}

struct SingleInstance::Handle {
  UniqueFd file;
  UniqueFd place;  // only where the file cannot be locked
};

SingleInstance::SingleInstance(const std::wstring& name) {
  if (name.empty() || name.find(L'/') != std::wstring::npos) {
    SetLastError(kErrorPathNotFound);
    return;
  }
  auto handle = std::make_unique<Handle>();
  handle->file = OpenLockFile(LockPath(name));
  if (!handle->file) {
    return;
  }
  if (!TryLock(handle->file.Get(), LOCK_EX)) {
    if (!IsMissingLock(errno)) {
      SetLastError(errno == EWOULDBLOCK ? kErrorAlreadyExists : NumberOfErrno(errno));
      return;
    }
    handle->place = BindInPlaceOfLock(handle->file);
    if (!handle->place) {
      return;
    }
  }
  handle_ = std::move(handle);
}

// The file stays: removing it could detach it from a new owner's lock.
SingleInstance::~SingleInstance() = default;

}  // namespace platform
