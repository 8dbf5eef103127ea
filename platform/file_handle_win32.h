// Owned handles of files and folders.
#pragma once

#include <windows.h>

#include "platform/unique_handle.h"

namespace platform {

struct FileCloser {
  using Value = HANDLE;
  static inline const Value kInvalid = INVALID_HANDLE_VALUE;
  // Leaves the error number as it is.
  static void Close(Value file) noexcept {
    const DWORD error = GetLastError();
    CloseHandle(file);
    ::SetLastError(error);
  }
};
using UniqueFile = UniqueHandle<FileCloser>;

}  // namespace platform
