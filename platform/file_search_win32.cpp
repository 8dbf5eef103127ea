// The system's search.
#include "platform/file_search.h"

#include <windows.h>

#include <utility>

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

constexpr std::uint64_t Joined(DWORD high, DWORD low) {
  return (std::uint64_t{high} << 32) | low;
}

// A FILETIME counts 100 ns since 1601.
std::int64_t SecondsSince1970(const FILETIME& time) {
  constexpr std::int64_t kTicksPerSecond = 10'000'000;
  constexpr std::int64_t kSecondsFrom1601To1970 = 11'644'473'600;
  const auto ticks = static_cast<std::int64_t>(Joined(time.dwHighDateTime, time.dwLowDateTime));
  return ticks / kTicksPerSecond - kSecondsFrom1601To1970;
}

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
