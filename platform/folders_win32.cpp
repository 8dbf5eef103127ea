// Folders that Windows provides.
#include "platform/folders.h"

#include <windows.h>
// Requires windows.h.
#include <shlobj.h>

namespace platform {

std::optional<std::wstring> DefaultLogBase() {
  wchar_t directory[260] = {};
  const UINT length = GetSystemDirectoryW(directory, static_cast<UINT>(std::size(directory)));
  if (length >= std::size(directory)) {
    return std::nullopt;  // The result is the required size; nothing was copied.
  }
  return DriveRootOf(std::wstring_view(directory, length));
}

std::wstring CommonDocumentsFolder() {
  wchar_t folder[MAX_PATH] = {};
  if (!SHGetSpecialFolderPathW(nullptr, folder, CSIDL_COMMON_DOCUMENTS, /*fCreate=*/FALSE)) {
    return {};
  }
  std::wstring path = folder;
  if (!path.empty() && path.back() == L'\\') {
    path.pop_back();
  }
  return path;
}

}  // namespace platform
