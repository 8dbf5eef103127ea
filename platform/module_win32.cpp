// Modules through the Windows loader.
#include "platform/module.h"

#include <windows.h>

#include <iterator>

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

std::wstring ProgramPath() {
  wchar_t path[260] = {};
  const DWORD length = GetModuleFileNameW(nullptr, path, static_cast<DWORD>(std::size(path)));
  // A path that was cut fills the whole buffer.
  return std::wstring(path, length < std::size(path) ? length : std::size(path) - 1);
}

Library ModuleOfAddress(const void* address) noexcept {
  HMODULE module = nullptr;
  // No address would be the program itself.
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
