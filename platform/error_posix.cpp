// The thread's last error number, kept in a thread-local variable.
#include "platform/error.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include "platform/fd_posix.h"

namespace platform {
namespace {

thread_local unsigned last_error = 0;

// Returns whether the folder of the path's last component is missing.
bool FolderIsMissing(const std::string& path) {
  const std::size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) {
    return true;  // For an empty path Windows also reports a missing folder.
  }
  const std::size_t separator = path.rfind('/', end);
  if (separator == std::string::npos || separator == 0) {
    return false;
  }
  std::array<char, PATH_MAX> folder;
  if (separator + 1 >= folder.size()) {
    return true;  // longer than any path
  }
  // Includes the separator, so that a link is followed and a file in place of the folder is
  // refused.
  *std::copy_n(path.begin(), separator + 1, folder.begin()) = '\0';
  struct stat status;
  return Stat(folder.data(), status) != 0;
}

}  // namespace

unsigned LastError() noexcept {
  return last_error;
}

void SetLastError(unsigned error) noexcept {
  last_error = error;
}

unsigned NumberOfErrno(int error_number) noexcept {
  switch (error_number) {
    case 0:
      return 0;
    case ENOENT:
      return kErrorFileNotFound;
    case ENOTDIR:
      return kErrorPathNotFound;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
      return kErrorAccessDenied;
    case EAGAIN:  // EWOULDBLOCK: another process holds the lock
    case EBUSY:
    case ETXTBSY:
      return kErrorSharingViolation;
    case ENOSPC:
    case EDQUOT:
      return kErrorDiskFull;
    case EEXIST:
    case ENOTEMPTY:
      return kErrorAlreadyExists;
    case ENAMETOOLONG:
      return kErrorFileNameTooLong;
    default:
      return kErrorGeneralFailure;
  }
}

void RecordErrno(int error_number, const std::string& path) {
  if (error_number == ENOENT && FolderIsMissing(path)) {
    SetLastError(kErrorPathNotFound);
    return;
  }
  SetLastError(NumberOfErrno(error_number));
}

}  // namespace platform
