// Folder search by the system.
#include "platform/file_search.h"

#include <windows.h>

#include <utility>

#include "platform/file_handle_win32.h"
#include "platform/text.h"
#include "platform/unique_handle.h"

namespace platform {
namespace {

struct FindCloser {
  using Value = HANDLE;
  static inline const Value kInvalid = INVALID_HANDLE_VALUE;
  static void Close(Value search) noexcept {
    const DWORD error = GetLastError();
    FindClose(search);
    ::SetLastError(error);
  }
};

FoundEntry EntryOf(const WIN32_FIND_DATAW& data) {
  return {data.cFileName, (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0};
}

}  // namespace

struct FileSearch::Handle {
  UniqueHandle<FindCloser> search;
  EntryDetails details;

  void Keep(const WIN32_FIND_DATAW& data) {
    details.size = Joined(data.nFileSizeHigh, data.nFileSizeLow);
    details.modified = SecondsSince1970(data.ftLastWriteTime);
  }
};

FileSearch::FileSearch() = default;
FileSearch::FileSearch(std::wstring folder, std::wstring ending)
    : folder_(std::move(folder)), ending_(std::move(ending)) {}
FileSearch::~FileSearch() = default;
FileSearch::FileSearch(FileSearch&&) noexcept = default;
FileSearch& FileSearch::operator=(FileSearch&&) noexcept = default;

bool FileSearch::First() {
  Close();
  const std::wstring pattern = JoinPath(folder_, ending_.empty() ? L"*.*" : L"*" + ending_);
  auto handle = std::make_unique<Handle>();
  WIN32_FIND_DATAW data = {};
  handle->search.Reset(FindFirstFileW(pattern.c_str(), &data));
  if (!handle->search) {
    return false;
  }
  entry_ = EntryOf(data);
  handle->Keep(data);
  handle_ = std::move(handle);
  return true;
}

bool FileSearch::Next() {
  WIN32_FIND_DATAW data = {};
  if (handle_ == nullptr) {
    ::SetLastError(ERROR_NO_MORE_FILES);
    return false;
  }
  if (!FindNextFileW(handle_->search.Get(), &data)) {
    return false;
  }
  entry_ = EntryOf(data);
  handle_->Keep(data);
  return true;
}

std::optional<EntryDetails> FileSearch::Details() const {
  if (handle_ == nullptr) {
    ::SetLastError(ERROR_FILE_NOT_FOUND);
    return std::nullopt;
  }
  return handle_->details;
}

void FileSearch::Close() noexcept {
  handle_.reset();
}

}  // namespace platform
