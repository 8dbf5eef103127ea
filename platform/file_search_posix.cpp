// Folder search in the order of readdir.
#include "platform/file_search.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <utility>

#include "platform/error.h"
#include "platform/fd_posix.h"
#include "platform/text.h"
#include "platform/unique_handle.h"

namespace platform {
namespace {

struct DirectoryCloser {
  using Value = DIR*;
  static constexpr std::nullptr_t kInvalid = nullptr;
  static void Close(Value directory) noexcept {
    const int error_number = errno;
    closedir(directory);
    errno = error_number;
  }
};

// Calls that return a pointer, repeated when interrupted.

DIR* OpenFolder(const std::string& folder) {
  DIR* directory = nullptr;
  static_cast<void>(Uninterrupted([&] { return (directory = opendir(folder.c_str())) ? 0 : -1; }));
  return directory;
}

// Returns null with errno 0 at the end.
const dirent* NextEntry(DIR* directory) {
  const dirent* entry = nullptr;
  static_cast<void>(Uninterrupted([&] {
    errno = 0;
    // No other thread reads this stream.
    entry = readdir(directory);  // NOLINT(concurrency-mt-unsafe)
    return entry != nullptr ? 0 : -1;
  }));
  return entry;
}

// fstatat(2) that follows links, repeated when interrupted.
bool StatusOf(DIR* directory, const char* name, struct stat& status) {
  return Uninterrupted([&] { return fstatat(dirfd(directory), name, &status, 0); }) == 0;
}

bool IsFolderEntry(DIR* directory, const dirent& entry) {
  if (entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN) {
    return entry.d_type == DT_DIR;
  }
  struct stat status;
  // A dangling link or an entry that has been removed is not a folder.
  return StatusOf(directory, entry.d_name, status) && S_ISDIR(status.st_mode);
}

}  // namespace

struct FileSearch::Handle {
  UniqueHandle<DirectoryCloser> directory;
  std::string entry;  // the current entry's native name
};

FileSearch::FileSearch() = default;
FileSearch::FileSearch(std::wstring folder, std::wstring ending)
    : folder_(std::move(folder)), ending_(std::move(ending)) {}
FileSearch::~FileSearch() = default;
FileSearch::FileSearch(FileSearch&&) noexcept = default;
FileSearch& FileSearch::operator=(FileSearch&&) noexcept = default;

bool FileSearch::First() {
  Close();
  auto handle = std::make_unique<Handle>();
  // With a trailing separator, so that the root stays the root.
  handle->directory.Reset(OpenFolder(ToNativePath(JoinPath(folder_, L""))));
  if (!handle->directory) {
    const int error_number = errno;
    SetLastError(error_number == ENOENT ? kErrorPathNotFound : NumberOfErrno(error_number));
    return false;
  }
  handle_ = std::move(handle);
  if (Next()) {
    return true;
  }
  if (LastError() == kErrorNoMoreFiles) {
    SetLastError(kErrorFileNotFound);
  }
  Close();
  return false;
}

bool FileSearch::Next() {
  if (handle_ == nullptr) {
    SetLastError(kErrorNoMoreFiles);
    return false;
  }
  DIR* const directory = handle_->directory.Get();
  for (;;) {
    const dirent* const entry = NextEntry(directory);
    if (entry == nullptr) {
      SetLastError(errno == 0 ? kErrorNoMoreFiles : NumberOfErrno(errno));
      return false;
    }
    std::wstring name = FromNativePath(entry->d_name);
    if (EndsWithIgnoringCase(name, ending_)) {
      entry_ = {std::move(name), IsFolderEntry(directory, *entry)};
      handle_->entry = entry->d_name;
      return true;
    }
  }
}

std::optional<EntryDetails> FileSearch::Details() const {
  struct stat status;
  if (handle_ == nullptr) {
    SetLastError(kErrorFileNotFound);
    return std::nullopt;
  }
  if (!StatusOf(handle_->directory.Get(), handle_->entry.c_str(), status)) {
    SetLastError(NumberOfErrno(errno));
    return std::nullopt;
  }
  return EntryDetails{static_cast<std::uint64_t>(status.st_size), status.st_mtim.tv_sec};
}

void FileSearch::Close() noexcept {
  handle_.reset();
}

}  // namespace platform
