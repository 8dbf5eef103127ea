// One owner per machine through a locked file, or a name of sockets where files have no locks.
#include "platform/single_instance.h"

#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>

#include "platform/errno_posix.h"
#include "platform/error.h"
#include "platform/fd_posix.h"
#include "platform/sysroot_posix.h"
#include "platform/text.h"

namespace platform {
namespace {

// Everybody may lock the file, whoever made it: reading is enough for that.
constexpr mode_t kLockFileMode = 0644;

// Opens the lock file, or makes it. Two steps: in a folder that everybody may write to, the kernel
// can refuse O_CREAT for a file that another user made (fs.protected_regular).
UniqueFd OpenLockFile(const std::string& path) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    UniqueFd existing = OpenRegularFile(path, O_RDONLY | O_NOFOLLOW);
    if (existing || LastError() != kErrorFileNotFound) {
      return existing;
    }
    UniqueFd made = OpenRegularFile(path, O_RDONLY | O_NOFOLLOW | O_CREAT | O_EXCL, 0666);
    if (made) {
      // The umask of the first user must not shut the others out. Nothing depends on it for us.
      (void)fchmod(made.Get(), kLockFileMode);
      return made;
    }
    if (LastError() != kErrorAlreadyExists) {
      return made;
    }
  }
  return {};
}

// Holds the place where files cannot be locked: by a name of Unix sockets that is in no file system
// (unix(7), abstract) and that the kernel, too, gives back when the process ends. The lock file's
// numbers are the name, so that only runs that share the file shut each other out.
UniqueFd BindInPlaceOfLock(const UniqueFd& lock_file) {
  struct stat status;
  UniqueFd place(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!place || fstat(lock_file.Get(), &status) != 0) {
    SetLastError(NumberOfErrno(errno));
    return {};
  }
  const std::string name =
      "kyd-instance-" + std::to_string(status.st_dev) + "-" + std::to_string(status.st_ino);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof address.sun_path - 1);  // behind the NUL of such names
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  if (bind(place.Get(), reinterpret_cast<const sockaddr*>(&address), size) != 0) {
    SetLastError(errno == EADDRINUSE ? kErrorAlreadyExists : NumberOfErrno(errno));
    return {};
  }
  return place;
}

}  // namespace

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
  handle->file = OpenLockFile(UnderSysroot("/run/lock/" + ToNativePath(name)));
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

// The file stays: removing it could take it away from under a new owner's lock.
SingleInstance::~SingleInstance() = default;

}  // namespace platform
