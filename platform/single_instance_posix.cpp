// One owner per machine through a locked file.
#include "platform/single_instance.h"

#include <sys/file.h>

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

}  // namespace

struct SingleInstance::Handle {
  UniqueFd lock;
};

SingleInstance::SingleInstance(const std::wstring& name) {
  if (name.empty() || name.find(L'/') != std::wstring::npos) {
    SetLastError(kErrorPathNotFound);
    return;
  }
  auto handle = std::make_unique<Handle>();
  handle->lock = OpenLockFile(UnderSysroot("/run/lock/" + ToNativePath(name)));
  if (!handle->lock) {
    return;
  }
  if (flock(handle->lock.Get(), LOCK_EX | LOCK_NB) != 0) {
    SetLastError(kErrorAlreadyExists);
    return;
  }
  handle_ = std::move(handle);
}

// The file stays: whoever removed it could take it away from under a new owner's lock.
SingleInstance::~SingleInstance() = default;

}  // namespace platform
