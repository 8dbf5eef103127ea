// The system's search.
#include "platform/file_search.h"

#include <windows.h>

#include <utility>

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
};

FileSearch::FileSearch() = default;
FileSearch::~FileSearch() = default;

bool FileSearch::First(const std::wstring& pattern) {
  Close();
  auto handle = std::make_unique<Handle>();
  WIN32_FIND_DATAW data = {};
  handle->search.Reset(FindFirstFileW(pattern.c_str(), &data));
  if (!handle->search) {
    return false;
  }
  entry_ = EntryOf(data);
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
  return true;
}

void FileSearch::Close() noexcept {
  handle_.reset();
}

}  // namespace platform
