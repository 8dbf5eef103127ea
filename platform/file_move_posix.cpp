// Moving a file without replacing one, step by step, on file systems of every kind.
#include "platform/file_move_posix.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "platform/errno_posix.h"
#include "platform/error.h"
#include "platform/fd_posix.h"

namespace platform {
namespace {

constexpr std::size_t kCopyBytes = std::size_t{256} << 10;

// The folder of a path with its separator; "./" for a bare name.
std::string FolderOf(const std::string& path) {
  const std::size_t separator = path.rfind('/');
  return separator == std::string::npos ? "./" : path.substr(0, separator + 1);
}

// Removes a file again unless it is kept. Never disturbs the error that is being reported.
class Undo {
 public:
  explicit Undo(const std::string& path) noexcept : path_(&path) {}
  ~Undo() {
    if (path_ != nullptr) {
      const int error_number = errno;
      unlink(path_->c_str());
      errno = error_number;
    }
  }
  Undo(const Undo&) = delete;
  Undo& operator=(const Undo&) = delete;
  void Dismiss() noexcept { path_ = nullptr; }

 private:
  const std::string* path_;
};

bool SameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// True when the path still names the open file, and the file is what it was when it was opened.
bool IsUnchanged(const std::string& path, const UniqueFd& file, const struct stat& before) {
  struct stat now;
  struct stat named;
  return fstat(file.Get(), &now) == 0 && lstat(path.c_str(), &named) == 0 &&
         named.st_dev == before.st_dev && named.st_ino == before.st_ino &&
         now.st_size == before.st_size && SameTime(now.st_mtim, before.st_mtim);
}

// Copies everything up to the end. False, with errno set, when that fails, and when it was not
// `size` bytes.
bool CopyBytes(const UniqueFd& from, const UniqueFd& to, off_t size) {
  const auto buffer = std::make_unique<char[]>(kCopyBytes);
  off_t total = 0;
  for (;;) {
    const ssize_t count = ReadOnce(from.Get(), buffer.get(), kCopyBytes);
    if (count < 0) {
      return false;
    }
    total += count;
    if (total > size || (count == 0 && total < size)) {
      errno = EAGAIN;  // Somebody is writing to the source.
      return false;
    }
    if (count == 0) {
      return true;
    }
    if (!WriteAll(to.Get(), buffer.get(), static_cast<std::size_t>(count))) {
      return false;
    }
  }
}

// Gives the copy what a rename would have kept.
bool CopyAttributes(const UniqueFd& to, const struct stat& from) {
  // Only an administrator can give files away; for others the copy stays theirs.
  (void)!fchown(to.Get(), from.st_uid, from.st_gid);
  const timespec times[2] = {from.st_atim, from.st_mtim};
  return fchmod(to.Get(), from.st_mode & 0777) == 0 && futimens(to.Get(), times) == 0;
}

bool Failed(int error_number, const std::string& path) {
  RecordErrno(error_number, path);
  return false;
}

// Publishes the finished copy and removes the source.
bool ReplaceSource(const std::string& source, const UniqueFd& from, const struct stat& before,
                   const std::string& copy, const std::string& target) {
  if (const int error_number = MoveOnSameFileSystem(copy, target)) {
    return Failed(error_number, target);
  }
  Undo published(target);
  if (const int error_number = SyncFolderOf(target)) {
    return Failed(error_number, target);
  }
  struct stat named;
  if (lstat(source.c_str(), &named) != 0 && errno == ENOENT) {
    published.Dismiss();  // Somebody else removed it: the copy may be all that is left.
    return true;
  }
  // Looked at once more in the last moment: what was written meanwhile is not in the copy.
  if (!IsUnchanged(source, from, before)) {
    return Failed(EAGAIN, source);
  }
  if (unlink(source.c_str()) != 0) {
    return Failed(errno, source);
  }
  published.Dismiss();
  return true;
}

}  // namespace

int MoveByRename(const std::string& source, const std::string& target) noexcept {
  return renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0
             ? 0
             : errno;
}

int MoveByLink(const std::string& source, const std::string& target) noexcept {
  if (link(source.c_str(), target.c_str()) != 0) {
    return errno;
  }
  if (unlink(source.c_str()) != 0) {
    const int error_number = errno;
    unlink(target.c_str());
    return error_number;
  }
  return 0;
}

int MoveByReservation(const std::string& source, const std::string& target) noexcept {
  struct stat status;
  if (lstat(source.c_str(), &status) != 0) {
    return errno;
  }
  const bool is_folder = S_ISDIR(status.st_mode);
  if (is_folder) {
    if (mkdir(target.c_str(), 0700) != 0) {
      return errno;
    }
  } else {
    const UniqueFd reserved(
        open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!reserved) {
      return errno;
    }
  }
  if (rename(source.c_str(), target.c_str()) != 0) {
    const int error_number = errno;
    if (is_folder) {
      rmdir(target.c_str());
    } else {
      unlink(target.c_str());
    }
    return error_number;
  }
  return 0;
}

int MoveOnSameFileSystem(const std::string& source, const std::string& target) noexcept {
  int error_number = MoveByRename(source, target);
  if (error_number != EINVAL && error_number != ENOSYS) {
    return error_number;
  }
  error_number = MoveByLink(source, target);
  if (error_number != EPERM && error_number != ENOTSUP && error_number != EMLINK &&
      error_number != ENOSYS) {
    return error_number;
  }
  return MoveByReservation(source, target);
}

bool MoveByCopy(const std::string& source, const std::string& target) {
  const UniqueFd from = OpenRegularFile(source, O_RDONLY | O_NOFOLLOW);
  if (!from) {
    // Links and folders stay on their file system.
    if (LastError() == kErrorAccessDenied) {
      struct stat status;
      if (lstat(source.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        SetLastError(kErrorGeneralFailure);
      }
    }
    return false;
  }
  struct stat before;
  if (fstat(from.Get(), &before) != 0) {
    return Failed(errno, source);
  }
  struct stat existing;
  if (lstat(target.c_str(), &existing) == 0) {
    return Failed(EEXIST, target);  // Known before a long copy is made for nothing.
  }
  // Not derived from the target's name, which may be as long as names can be.
  std::string copy = FolderOf(target) + ".kyd-move-XXXXXX";
  UniqueFd to(mkostemp(copy.data(), O_CLOEXEC));
  if (!to) {
    return Failed(errno, target);
  }
  Undo unfinished(copy);
  if (!CopyBytes(from, to, before.st_size) || !CopyAttributes(to, before) || fsync(to.Get()) != 0) {
    return Failed(errno, target);
  }
  if (close(to.Release()) != 0) {
    return Failed(errno, target);
  }
  if (!IsUnchanged(source, from, before)) {
    return Failed(EAGAIN, source);
  }
  if (!ReplaceSource(source, from, before, copy, target)) {
    return false;
  }
  unfinished.Dismiss();
  return true;
}

int SyncFolderOf(const std::string& path) {
  const UniqueFd folder(open(FolderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) {
    // A folder that may be written to but not read: nothing more can be done.
    return errno == EACCES ? 0 : errno;
  }
  if (fsync(folder.Get()) != 0 && errno != EINVAL && errno != ENOTSUP) {
    return errno;
  }
  return 0;
}

}  // namespace platform
