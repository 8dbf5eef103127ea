// Modules of the Windows loader.
#include "platform/module.h"

#include <windows.h>

#include <iterator>

#include "platform/text.h"

namespace platform {

void ModuleCloser::Close(Value module) noexcept {
  FreeLibrary(static_cast<HMODULE>(module));
}

Library LoadLibraryFile(const std::wstring& path) {
  return Library(LoadLibraryW(path.c_str()));
}

void* FindExport(const Library& library, const char* name) noexcept {
  if (!library) {
    ::SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
  }
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library.Get()), name));
}

std::wstring FolderOfModule(const void* address) {
  constexpr std::size_t kLongestPath = 32768;  // characters, of any path
  const Library module = ModuleOfAddress(address);
  if (!module) {
    return {};
  }
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(static_cast<HMODULE>(module.Get()), path.data(),
                                            static_cast<DWORD>(path.size()));
    if (length == 0 || path.size() > kLongestPath) {
      return {};
    }
    if (length < path.size()) {
      path.resize(length);
      return FolderOf(path);
    }
    path.resize(path.size() * 2);  // It may have been truncated.
  }
}

std::wstring ProgramPath() {
  wchar_t path[260] = {};
  const DWORD length = GetModuleFileNameW(nullptr, path, static_cast<DWORD>(std::size(path)));
  // A truncated path fills the whole buffer.
  return std::wstring(path, length < std::size(path) ? length : std::size(path) - 1);
}

Library ModuleOfAddress(const void* address) noexcept {
  HMODULE module = nullptr;
  // A null address would select the program itself.
  if (address == nullptr) {
    ::SetLastError(ERROR_MOD_NOT_FOUND);
    return Library();
  }
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, static_cast<LPCWSTR>(address),
                          &module)) {
    return Library();
  }
  return Library(module);
}

}  // namespace platform
