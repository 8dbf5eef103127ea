// Checks rights with faccessat, which uses the effective user and takes read-only file systems and
// access-control lists into account.
#include "platform/access.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>

#include "platform/error.h"
#include "platform/fd_posix.h"
#include "platform/text.h"

namespace platform {
namespace {

bool Failed(int error_number, const std::string& path) {
  RecordErrno(error_number, path);
  return false;
}

bool IsAllowed(const std::string& path, bool wants_folder, int mode) {
  struct stat status;
  if (Stat(path.c_str(), status) != 0) {
    return Failed(errno, path);
  }
  if (wants_folder ? !S_ISDIR(status.st_mode) : !S_ISREG(status.st_mode)) {
    return Failed(wants_folder ? ENOTDIR : EACCES, path);
  }
  return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 || Failed(errno, path);
}

}  // namespace

bool MayAccess(const std::wstring& path, Access access) {
  const std::string native = ToNativePath(path);
  switch (access) {
    case Access::kListFolder:
      return IsAllowed(native, /*wants_folder=*/true, R_OK | X_OK);
    case Access::kAddFile:
      return IsAllowed(native, /*wants_folder=*/true, W_OK | X_OK);
    case Access::kReadFile:
      return IsAllowed(native, /*wants_folder=*/false, R_OK);
    case Access::kAppendFile:
      break;
  }
  return IsAllowed(native, /*wants_folder=*/false, W_OK);
}

bool MayRemove(const std::wstring& path) {
  const std::string native = ToNativePath(path);
  const std::string folder = ToNativePath(FolderOf(path));
  if (!IsAllowed(folder, /*wants_folder=*/true, W_OK | X_OK)) {
    return false;
  }
  struct stat of_folder;
  struct stat of_file;
  if (Stat(folder.c_str(), of_folder) != 0 ||
      Uninterrupted([&] { return lstat(native.c_str(), &of_file); }) != 0) {
    return Failed(errno, native);
  }
  // In a sticky folder only the owner of the folder or of the file may remove the file.
  const bool is_sticky = (of_folder.st_mode & S_ISVTX) != 0;
  const uid_t user = geteuid();
  const bool owns = user == of_file.st_uid || user == of_folder.st_uid || user == 0;
  return !is_sticky || owns || Failed(EPERM, native);
}

std::optional<std::uint64_t> FreeBytes(const std::wstring& folder) {
  const std::string native = ToNativePath(folder);
  struct statvfs status;
  if (statvfs(native.c_str(), &status) != 0) {
    RecordErrno(errno, native);
    return std::nullopt;
  }
  // File systems without a fixed number of files report 0 for both.
  if (status.f_files != 0 && status.f_favail == 0) {
    return 0;
  }
  return std::uint64_t{status.f_bavail} * status.f_frsize;
}

}  // namespace platform
