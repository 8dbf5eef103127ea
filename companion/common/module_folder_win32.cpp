// The module's folder on Windows.
#include <windows.h>

#include <string>
#include <system_error>

#include "companion/common/module_folder.h"

namespace companion {
namespace {

[[noreturn]] void ThrowLastError(const char* call) {
  const DWORD error = GetLastError();
  throw std::system_error(static_cast<int>(error), std::system_category(), call);
}

}  // namespace

std::filesystem::path ThisModuleFolder() {
  HMODULE module = nullptr;
  const DWORD flags =
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
  // Any address inside the module will do; the function's own needs no further symbol.
  if (GetModuleHandleExW(flags, reinterpret_cast<LPCWSTR>(&ThisModuleFolder), &module) == FALSE) {
    ThrowLastError("GetModuleHandleExW");
  }
  // A name that fills the buffer has been cut, so the buffer grows until there is room to spare.
  constexpr std::size_t kLongestPath = 32768;
  std::wstring name(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(module, name.data(), static_cast<DWORD>(name.size()));
    if (length == 0) {
      ThrowLastError("GetModuleFileNameW");
    }
    if (length < name.size()) {
      name.resize(length);
      return std::filesystem::path(name).parent_path();
    }
    if (name.size() > kLongestPath) {
      throw std::system_error(ERROR_FILENAME_EXCED_RANGE, std::system_category(),
                              "GetModuleFileNameW");
    }
    name.resize(name.size() * 2);
  }
}

}  // namespace companion
