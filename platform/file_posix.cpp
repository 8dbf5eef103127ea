// Files through the POSIX interfaces, with the sharing rules of Windows.
#include "platform/file.h"

#include <sys/file.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <utility>

#include "platform/error.h"
#include "platform/fd_posix.h"
#include "platform/file_look_posix.h"
#include "platform/file_move_posix.h"
#include "platform/text.h"

namespace platform {
namespace {

constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";
constexpr mode_t kNewFileMode = 0666;
constexpr mode_t kNewFolderMode = 0755;
// The maximum per call; Linux itself stops slightly below 2 GiB.
constexpr std::size_t kLargestTransfer = std::size_t{1} << 30;

// Opens a regular file and locks it (flock) in place of a share mode: exclusively if no other
// process may open or write to the file, shared for readers. If the file system has no locks, the
// file is opened without one.
UniqueFd OpenLocked(const std::wstring& path, int flags, int lock) {
  const std::string native = ToNativePath(path);
  UniqueFd fd = OpenRegularFile(native, flags, kNewFileMode);
  if (!fd || TryLock(fd.Get(), lock)) {
    return fd;
  }
  int error_number = errno;
  // A network file system grants an exclusive lock only on a file that is open for writing. A
  // shared lock is refused as well while a writer holds its lock.
  if (error_number == EBADF && lock == LOCK_EX) {
    error_number = TryLock(fd.Get(), LOCK_SH) ? 0 : errno;
  }
  if (error_number != 0 && !IsMissingLock(error_number)) {
    fd.Reset();
    RecordErrno(error_number, native);
  }
  return fd;
}

// Continues after short reads until `size` bytes are read or the file ends. `read_some` gets the
// destination, the number of bytes read so far and the number wanted.
template <class ReadSome>
std::optional<std::size_t> ReadUpTo(void* buffer, std::size_t size, const ReadSome& read_some) {
  std::size_t total = 0;
  while (total < size) {
    const ssize_t count = read_some(static_cast<char*>(buffer) + total, total,
                                    std::min(size - total, kLargestTransfer));
    if (count < 0) {
      SetLastError(NumberOfErrno(errno));
      return std::nullopt;
    }
    if (count == 0) {
      break;
    }
    total += static_cast<std::size_t>(count);
  }
  return total;
}

int MakeFolder(const std::string& path) {
  return mkdir(path.c_str(), kNewFolderMode);
}

bool IsExistingFolder(const std::string& path) {
  struct stat status;
  return Stat(path.c_str(), status) == 0 && S_ISDIR(status.st_mode);
}

bool Failed(int error_number, const std::string& path) {
  RecordErrno(error_number, path);
  return false;
}

}  // namespace

struct File::Handle {
  UniqueFd fd;

  static std::unique_ptr<Handle> Holding(UniqueFd fd) {
    if (!fd) {
      return nullptr;
    }
    auto handle = std::make_unique<Handle>();
    handle->fd = std::move(fd);
    return handle;
  }
};

File::File() noexcept = default;
File::File(std::unique_ptr<Handle> handle) noexcept : handle_(std::move(handle)) {}
File::File(File&&) noexcept = default;
File& File::operator=(File&&) noexcept = default;
File::~File() = default;

File File::OpenExclusive(const std::wstring& path) {
  return File(Handle::Holding(OpenLocked(path, O_RDONLY, LOCK_EX)));
}

File File::OpenShared(const std::wstring& path) {
  return File(Handle::Holding(OpenLocked(path, O_RDONLY, LOCK_SH)));
}

File File::OpenUnobtrusive(const std::wstring& path) {
  return File(Handle::Holding(OpenRegularFile(ToNativePath(path), O_RDONLY)));
}

File File::OpenForWriting(const std::wstring& path, const CFileAccessSecurity& /*security*/) {
  return File(Handle::Holding(OpenLocked(path, O_WRONLY | O_CREAT, LOCK_EX)));
}

File File::CreateNew(const std::wstring& path, FileReaders readers) {
  const std::string native = ToNativePath(path);
  const mode_t mode = readers == FileReaders::kOwner ? 0600 : kNewFileMode;
  UniqueFd fd;
  const int error_number = MakeNew(native, S_IFREG, [&] {
    fd.Reset(open(native.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    return fd.Get();
  });
  if (error_number != 0) {
    RecordErrno(error_number, native);
    return {};
  }
  if (!fd) {
    // Created by a call that reported failure.
    fd = OpenRegularFile(native, O_WRONLY | O_NOFOLLOW);
    if (!fd) {
      static_cast<void>(Uninterrupted([&] { return unlink(native.c_str()); }));
    }
  }
  return File(Handle::Holding(std::move(fd)));
}

std::optional<std::uint64_t> File::Size() const {
  struct stat status;
  if (handle_ == nullptr || Fstat(handle_->fd.Get(), status) != 0) {
    SetLastError(kErrorGeneralFailure);
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(status.st_size);
}

std::optional<std::size_t> File::Read(void* buffer, std::size_t size) {
  if (handle_ == nullptr) {
    SetLastError(kErrorGeneralFailure);
    return std::nullopt;
  }
  return ReadUpTo(buffer, size, [this](char* place, std::size_t /*done*/, std::size_t wanted) {
    return ReadOnce(handle_->fd.Get(), place, wanted);
  });
}

std::optional<std::size_t> File::ReadAt(std::uint64_t offset, void* buffer, std::size_t size) {
  if (handle_ == nullptr) {
    SetLastError(kErrorGeneralFailure);
    return std::nullopt;
  }
  constexpr auto kLastPlace = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
  if (offset >= kLastPlace) {
    return 0;
  }
  const auto most = static_cast<std::size_t>(std::min<std::uint64_t>(size, kLastPlace - offset));
  return ReadUpTo(buffer, most, [&](char* place, std::size_t done, std::size_t wanted) {
    return ReadOnceAt(handle_->fd.Get(), place, wanted, static_cast<off_t>(offset + done));
  });
}

bool File::SeekToEnd() {
  if (handle_ == nullptr || lseek(handle_->fd.Get(), 0, SEEK_END) < 0) {
    SetLastError(kErrorGeneralFailure);
    return false;
  }
  return true;
}

std::optional<std::size_t> File::Write(const void* bytes, std::size_t size) {
  if (handle_ == nullptr) {
    SetLastError(kErrorGeneralFailure);
    return std::nullopt;
  }
  const ssize_t count = WriteOnce(handle_->fd.Get(), bytes, std::min(size, kLargestTransfer));
  if (count < 0) {
    SetLastError(NumberOfErrno(errno));
    return std::nullopt;
  }
  return static_cast<std::size_t>(count);
}

bool File::Flush() {
  if (handle_ == nullptr || Uninterrupted([this] { return fsync(handle_->fd.Get()); }) != 0) {
    SetLastError(handle_ == nullptr ? kErrorGeneralFailure : NumberOfErrno(errno));
    return false;
  }
  return true;
}

void File::Close() noexcept {
  handle_.reset();
}

struct Utf8AppendFile::Handle {
  UniqueFd fd;
};

Utf8AppendFile::Utf8AppendFile(const std::wstring& path) {
  auto handle = std::make_unique<Handle>();
  struct stat status;
  handle->fd =
      OpenRegularFile(ToNativePath(path), O_WRONLY | O_APPEND | O_CREAT, kNewFileMode, status);
  if (!handle->fd) {
    return;
  }
  if (status.st_size == 0) {
    // If this fails, so does the line that follows.
    (void)WriteAll(handle->fd.Get(), kByteOrderMark, sizeof kByteOrderMark - 1);
  }
  handle_ = std::move(handle);
}

Utf8AppendFile::~Utf8AppendFile() = default;

void Utf8AppendFile::Write(const std::wstring& text) {
  if (handle_ == nullptr) {
    return;
  }
  std::string bytes = ToUtf8(text.c_str());
  for (std::size_t end = bytes.find('\n'); end != std::string::npos;
       end = bytes.find('\n', end + 2)) {
    bytes.insert(end, 1, '\r');
  }
  // Written in one call, so that the lines of several processes do not mix. A line that cannot be
  // written is lost: a logger cannot report its own failure.
  (void)WriteAll(handle_->fd.Get(), bytes.data(), bytes.size());
}

bool MoveWithoutReplacing(const std::wstring& source, const std::wstring& target) {
  const std::string from = ToNativePath(source);
  const std::string to = ToNativePath(target);
  const int error_number = MoveOnSameFileSystem(from, to);
  if (error_number == EXDEV) {
    return MoveByCopy(from, to);
  }
  if (error_number == 0) {
    return true;
  }
  return Failed(error_number, LookAt(from).IsPresent() ? to : from);
}

bool MoveReplacing(const std::wstring& source, const std::wstring& target) {
  const std::string from = ToNativePath(source);
  const std::string to = ToNativePath(target);
  if (const int error_number = MoveOver(from, to)) {
    return Failed(error_number, LookAt(from).IsPresent() ? to : from);
  }
  if (const int error_number = SyncFolderOf(to)) {
    return Failed(error_number, to);
  }
  return true;
}

bool RemoveFile(const std::wstring& path) {
  const std::string native = ToNativePath(path);
  const Entry file = LookAt(native);
  if (TakeAway(native, [&] { return unlink(native.c_str()); }) == 0) {
    return true;
  }
  const int error_number = errno;
  // A file that is gone counts as removed, whatever unlink reported; ENOENT means that there was
  // none.
  return (error_number != ENOENT && HasLost(LookAt(native), file)) || Failed(error_number, native);
}

bool IsFolder(const std::wstring& path) {
  return IsExistingFolder(ToNativePath(path));
}

std::optional<bool> FileExists(const std::wstring& path) {
  const std::string native = ToNativePath(path);
  struct stat status;
  if (Stat(native.c_str(), status) == 0) {
    return !S_ISDIR(status.st_mode);
  }
  RecordErrno(errno, native);
  if (IsMissing(LastError())) {
    return false;
  }
  return std::nullopt;
}

bool CreateFolders(const std::wstring& path) {
  std::string native = ToNativePath(path);
  while (native.size() > 1 && native.back() == '/') {
    native.pop_back();
  }
  if (native.empty() || native.front() != '/') {
    SetLastError(kErrorPathNotFound);  // A relative path would depend on the current directory.
    return false;
  }
  for (std::size_t end = native.find('/', 1); end != std::string::npos;
       end = native.find('/', end + 1)) {
    const std::string parent = native.substr(0, end);
    if (Uninterrupted([&] { return MakeFolder(parent); }) != 0) {
      const int error_number = errno;
      if (!IsExistingFolder(parent)) {
        return Failed(error_number == EEXIST ? ENOTDIR : error_number, parent);
      }
    }
  }
  const int error_number = MakeNew(native, S_IFDIR, [&] { return MakeFolder(native); });
  return error_number == 0 || Failed(error_number, native);
}

}  // namespace platform
