// The beginning of a small file, on Windows.
#include <windows.h>

#include <algorithm>
#include <memory>

#include "companion/common/file_head.h"

namespace companion {
namespace {

struct CloseFile {
  void operator()(void* handle) const noexcept { CloseHandle(handle); }
};
using FileHandle = std::unique_ptr<void, CloseFile>;

}  // namespace

FileHead ReadFileHead(const std::filesystem::path& file, char* buffer, std::size_t size) {
  // A process that renames the file holds it open for deletion until the call is over; without
  // sharing that, a file that is already there could not be opened.
  const DWORD share_all = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  const HANDLE opened = CreateFileW(file.c_str(), GENERIC_READ, share_all, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  if (opened == INVALID_HANDLE_VALUE) {
    const DWORD error = GetLastError();
    return {error == ERROR_FILE_NOT_FOUND ? FileHead::State::kAbsent : FileHead::State::kUnreadable,
            0};
  }
  const FileHandle handle(opened);
  if (GetFileType(opened) != FILE_TYPE_DISK) {
    return {};
  }
  constexpr std::size_t kPiece = std::size_t{1} << 20U;
  FileHead head{FileHead::State::kRead, 0};
  while (head.size < size) {
    DWORD count = 0;
    if (ReadFile(opened, buffer + head.size, static_cast<DWORD>(std::min(kPiece, size - head.size)),
                 &count, nullptr) == FALSE) {
      return {};
    }
    if (count == 0) {
      break;
    }
    head.size += count;
  }
  return head;
}

}  // namespace companion
