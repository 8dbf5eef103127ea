// Files through the Windows interfaces.
#include "platform/file.h"

#include <share.h>
#include <windows.h>
// Require windows.h.
#include <shlobj.h>
#include <shlwapi.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <string_view>
#include <utility>

#include "platform/error.h"
#include "platform/file_handle_win32.h"
#include "platform/text.h"
#include "platform/unique_handle.h"

namespace platform {
namespace {

// The maximum per call: a multiple of any sector size that fits a DWORD.
constexpr std::size_t kLargestTransfer = std::size_t{1} << 30;

// The C run-time converts its output in blocks of some hundred characters and loses a surrogate
// pair that spans two of them. Text with such pairs is therefore written in pieces that fit into
// one block, even if every character were a line feed and became two.
constexpr std::size_t kLargestTextPiece = 120;

struct StreamCloser {
  using Value = FILE*;
  static constexpr Value kInvalid = nullptr;
  static void Close(Value stream) noexcept { fclose(stream); }
};

bool IsPresent(const std::wstring& path) {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// Whether the file is verifiably absent: a failed check does not count.
bool IsAbsent(const std::wstring& path) {
  return !IsPresent(path) && GetLastError() == ERROR_FILE_NOT_FOUND;
}

// Opens only files on a disk: a device or a pipe could block the caller.
UniqueFile OpenDiskFile(const std::wstring& path, DWORD access, DWORD share, void* security,
                        DWORD disposition, DWORD attributes) {
  UniqueFile file(CreateFileW(path.c_str(), access, share,
                              static_cast<SECURITY_ATTRIBUTES*>(security), disposition, attributes,
                              nullptr));
  if (file && GetFileType(file.Get()) != FILE_TYPE_DISK) {
    file.Reset();
    ::SetLastError(ERROR_ACCESS_DENIED);
  }
  return file;
}

// Continues after short reads until `size` bytes are read or the file ends. `place_after` returns
// the offset of the next read for the number of bytes read so far, or null to use the file pointer.
template <class PlaceAfter>
std::optional<std::size_t> ReadUpTo(HANDLE file, void* buffer, std::size_t size,
                                    const PlaceAfter& place_after) {
  std::size_t total = 0;
  while (total < size) {
    const auto wanted = static_cast<DWORD>(std::min(size - total, kLargestTransfer));
    DWORD count = 0;
    OVERLAPPED* const place = place_after(total);
    if (!ReadFile(file, static_cast<char*>(buffer) + total, wanted, &count, place)) {
      // At the end of the file a read with an offset fails; one without returns 0 bytes.
      if (place != nullptr && GetLastError() == ERROR_HANDLE_EOF) {
        break;
      }
      return std::nullopt;
    }
    if (count == 0) {
      break;
    }
    total += count;
  }
  return total;
}

}  // namespace

struct File::Handle {
  UniqueFile file;

  static std::unique_ptr<Handle> Holding(UniqueFile file) {
    if (!file) {
      return nullptr;
    }
    auto handle = std::make_unique<Handle>();
    handle->file = std::move(file);
    return handle;
  }
};

File::File() noexcept = default;
File::File(std::unique_ptr<Handle> handle) noexcept : handle_(std::move(handle)) {}
File::File(File&&) noexcept = default;
File& File::operator=(File&&) noexcept = default;
File::~File() = default;

File File::OpenExclusive(const std::wstring& path) {
  return File(Handle::Holding(OpenDiskFile(path, GENERIC_READ, /*share=*/0, /*security=*/nullptr,
                                           OPEN_EXISTING, FILE_ATTRIBUTE_ARCHIVE)));
}

File File::OpenShared(const std::wstring& path) {
  return File(
      Handle::Holding(OpenDiskFile(path, GENERIC_READ, FILE_SHARE_READ,
                                   /*security=*/nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL)));
}

File File::OpenUnobtrusive(const std::wstring& path) {
  constexpr DWORD kEverybody = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  return File(Handle::Holding(OpenDiskFile(path, GENERIC_READ, kEverybody, /*security=*/nullptr,
                                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL)));
}

File File::OpenForWriting(const std::wstring& path, const CFileAccessSecurity& security) {
  return File(Handle::Holding(OpenDiskFile(path, GENERIC_WRITE, FILE_SHARE_READ,
                                           security.Attributes(), OPEN_ALWAYS,
                                           /*attributes=*/0)));
}

File File::CreateNew(const std::wstring& path, FileReaders /*readers*/) {
  UniqueFile file = OpenDiskFile(path, GENERIC_WRITE, /*share=*/0, /*security=*/nullptr, CREATE_NEW,
                                 FILE_ATTRIBUTE_NORMAL);
  if (!file && GetLastError() == ERROR_FILE_EXISTS) {
    ::SetLastError(kErrorAlreadyExists);  // the same number as for a move
  }
  return File(Handle::Holding(std::move(file)));
}

std::optional<std::uint64_t> File::Size() const {
  LARGE_INTEGER size = {};
  if (handle_ == nullptr) {
    ::SetLastError(kErrorGeneralFailure);
    return std::nullopt;
  }
  if (!GetFileSizeEx(handle_->file.Get(), &size)) {
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(size.QuadPart);
}

std::optional<std::size_t> File::Read(void* buffer, std::size_t size) {
  if (handle_ == nullptr) {
    ::SetLastError(kErrorGeneralFailure);
    return std::nullopt;
  }
  return ReadUpTo(handle_->file.Get(), buffer, size, [](std::size_t) { return nullptr; });
}

std::optional<std::size_t> File::ReadAt(std::uint64_t offset, void* buffer, std::size_t size) {
  if (handle_ == nullptr) {
    ::SetLastError(kErrorGeneralFailure);
    return std::nullopt;
  }
  constexpr auto kLastPlace = static_cast<std::uint64_t>(std::numeric_limits<LONGLONG>::max());
  if (offset >= kLastPlace) {
    return 0;
  }
  const auto most = static_cast<std::size_t>(std::min<std::uint64_t>(size, kLastPlace - offset));
  OVERLAPPED place = {};
  return ReadUpTo(handle_->file.Get(), buffer, most, [&](std::size_t done) {
    place.Offset = static_cast<DWORD>(offset + done);
    place.OffsetHigh = static_cast<DWORD>((offset + done) >> 32);
    return &place;
  });
}

bool File::SeekToEnd() {
  if (handle_ == nullptr) {
    ::SetLastError(kErrorGeneralFailure);
    return false;
  }
  // Passes the upper half of the distance: without it the call fails beyond 4 GiB.
  LONG upper = 0;
  ::SetLastError(ERROR_SUCCESS);
  return SetFilePointer(handle_->file.Get(), 0, &upper, FILE_END) != INVALID_SET_FILE_POINTER ||
         GetLastError() == ERROR_SUCCESS;
}

std::optional<std::size_t> File::Write(const void* bytes, std::size_t size) {
  if (handle_ == nullptr) {
    ::SetLastError(kErrorGeneralFailure);
    return std::nullopt;
  }
  DWORD count = 0;
  if (!WriteFile(handle_->file.Get(), bytes, static_cast<DWORD>(std::min(size, kLargestTransfer)),
                 &count, nullptr)) {
    return std::nullopt;
  }
  return count;
}

bool File::Flush() {
  if (handle_ == nullptr) {
    ::SetLastError(kErrorGeneralFailure);
    return false;
  }
  return FlushFileBuffers(handle_->file.Get()) != FALSE;
}

void File::Close() noexcept {
  handle_.reset();
}

struct Utf8AppendFile::Handle {
  UniqueHandle<StreamCloser> stream;
};

Utf8AppendFile::Utf8AppendFile(const std::wstring& path) {
  auto handle = std::make_unique<Handle>();
  handle->stream.Reset(_wfsopen(path.c_str(), L"a, ccs=UTF-8", _SH_DENYNO));
  if (handle->stream) {
    handle_ = std::move(handle);
  }
}

Utf8AppendFile::~Utf8AppendFile() = default;

void Utf8AppendFile::Write(const std::wstring& text) {
  if (handle_ == nullptr) {
    return;
  }
  // The round trip replaces unpaired surrogates, which the C run-time would refuse.
  const std::wstring valid = FromUtf8(ToUtf8(text.c_str()));
  const bool has_pairs = std::any_of(valid.begin(), valid.end(), IsLowSurrogate);
  const std::size_t largest = has_pairs ? kLargestTextPiece : valid.size();
  for (std::size_t begin = 0; begin < valid.size();) {
    std::size_t size = std::min(valid.size() - begin, largest);
    if (begin + size < valid.size() && IsLowSurrogate(valid[begin + size])) {
      --size;
    }
    // A line that cannot be written is lost: a logger cannot report its own failure.
    fputws(valid.substr(begin, size).c_str(), handle_->stream.Get());
    fflush(handle_->stream.Get());
    begin += size;
  }
}

bool MoveWithoutReplacing(const std::wstring& source, const std::wstring& target) {
  // The moved file can be distinguished from an existing one only if the name was free before.
  const bool was_free = IsAbsent(target);
  if (MoveFileW(source.c_str(), target.c_str())) {
    return true;
  }
  const DWORD error = GetLastError();
  // A server that repeats a request reports failure for a completed move.
  if (was_free && IsAbsent(source) && IsPresent(target)) {
    return true;
  }
  ::SetLastError(error);
  return false;
}

bool MoveReplacing(const std::wstring& source, const std::wstring& target) {
  return MoveFileExW(source.c_str(), target.c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != FALSE;
}

bool RemoveFile(const std::wstring& path) {
  if (DeleteFileW(path.c_str())) {
    return true;
  }
  const DWORD error = GetLastError();
  // A file that is gone counts as removed, whatever the call reported; only a missing file stays a
  // failure.
  if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND && IsAbsent(path)) {
    return true;
  }
  ::SetLastError(error);
  return false;
}

bool IsFolder(const std::wstring& path) {
  return PathIsDirectoryW(path.c_str()) != FALSE;
}

std::optional<bool> FileExists(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES) {
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
  }
  const unsigned error = LastError();
  if (IsMissing(error)) {
    return false;
  }
  return std::nullopt;
}

bool CreateFolders(const std::wstring& path) {
  const int result = SHCreateDirectoryExW(nullptr, path.c_str(), nullptr);
  if (result != ERROR_SUCCESS) {
    ::SetLastError(static_cast<DWORD>(result));
    return false;
  }
  return true;
}

}  // namespace platform
