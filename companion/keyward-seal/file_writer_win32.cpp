// Files that appear whole or not at all, on Windows.
#include <windows.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <utility>

#include "companion/keyward-seal/file_writer.h"

namespace companion {
namespace {

std::error_code LastError() {
  const DWORD error = GetLastError();
  return {static_cast<int>(error), std::system_category()};
}

struct CloseFile {
  void operator()(void* handle) const noexcept { CloseHandle(handle); }
};
using FileHandle = std::unique_ptr<void, CloseFile>;

// Removes the temporary file on every path on which it has not become the real one.
class TemporaryName {
 public:
  explicit TemporaryName(std::wstring name) : name_(std::move(name)) {}
  TemporaryName(const TemporaryName&) = delete;
  TemporaryName& operator=(const TemporaryName&) = delete;
  ~TemporaryName() {
    if (!name_.empty()) {
      DeleteFileW(name_.c_str());
    }
  }

  void Dismiss() noexcept { name_.clear(); }

 private:
  std::wstring name_;
};

std::error_code WriteAll(HANDLE handle, ByteView bytes) {
  constexpr std::size_t kPiece = std::size_t{1} << 20U;
  while (bytes.size > 0) {
    DWORD written = 0;
    if (WriteFile(handle, bytes.data, static_cast<DWORD>(std::min(kPiece, bytes.size)), &written,
                  nullptr) == FALSE) {
      return LastError();
    }
    bytes.data += written;
    bytes.size -= written;
  }
  return FlushFileBuffers(handle) == FALSE ? LastError() : std::error_code();
}

// A name that nobody else uses; creating it exclusively is the proof.
std::wstring TemporaryNameFor(const std::filesystem::path& file) {
  std::array<std::uint8_t, 8> random{};
  std::wstring name = file.native() + L".";
  if (!FillRandom(random.data(), random.size())) {
    return name + std::to_wstring(GetCurrentProcessId());
  }
  for (const std::uint8_t byte : random) {
    name += L"0123456789abcdef"[byte >> 4U];
    name += L"0123456789abcdef"[byte & 0x0FU];
  }
  return name;
}

std::error_code Write(const std::filesystem::path& file, ByteView bytes, DWORD move_flags) {
  const std::wstring temporary = TemporaryNameFor(file);
  const HANDLE opened = CreateFileW(temporary.c_str(), GENERIC_WRITE, /*share mode=*/0, nullptr,
                                    CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (opened == INVALID_HANDLE_VALUE) {
    return LastError();
  }
  TemporaryName cleanup(temporary);
  FileHandle handle(opened);
  if (const std::error_code error = WriteAll(handle.get(), bytes)) {
    handle.reset();  // An open file cannot be removed.
    return error;
  }
  handle.reset();
  if (MoveFileExW(temporary.c_str(), file.c_str(), move_flags | MOVEFILE_WRITE_THROUGH) == FALSE) {
    const DWORD error = GetLastError();
    if (error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS) {
      return std::make_error_code(std::errc::file_exists);
    }
    return {static_cast<int>(error), std::system_category()};
  }
  cleanup.Dismiss();
  return {};
}

}  // namespace

std::error_code WriteReplacing(const std::filesystem::path& file, ByteView bytes) {
  return Write(file, bytes, MOVEFILE_REPLACE_EXISTING);
}

std::error_code WriteNew(const std::filesystem::path& file, ByteView bytes) {
  return Write(file, bytes, 0);
}

}  // namespace companion
