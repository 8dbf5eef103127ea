// Loadable modules: the program itself and its libraries.
#pragma once

#include <string>

#include "platform/unique_handle.h"

namespace platform {

// File name extension of a loadable library, ".dll" or ".so".
#ifdef _WIN32
inline constexpr wchar_t kLibraryEnding[] = L".dll";
#else
inline constexpr wchar_t kLibraryEnding[] = L".so";
#endif

// File name extension of a program.
#ifdef _WIN32
inline constexpr wchar_t kProgramEnding[] = L".exe";
#else
inline constexpr wchar_t kProgramEnding[] = L"";
#endif

// The handle of a loaded module, and the function that closes it (FreeLibrary, dlclose).
using ModuleHandle = void*;
struct ModuleCloser {
  using Value = ModuleHandle;
  static constexpr Value kInvalid = nullptr;
  static void Close(Value module) noexcept;
};
using Library = UniqueHandle<ModuleCloser>;

// Loads a library from a path, or by a bare name in the system's search order (LoadLibraryW,
// dlopen). Invalid on failure.
[[nodiscard]] Library LoadLibraryFile(const std::wstring& path);

// Returns the address of an export by its narrow name, null if there is none (GetProcAddress,
// dlsym).
[[nodiscard]] void* FindExport(const Library& library, const char* name) noexcept;

// Returns the full path of the running program. Windows: at most 259 characters, a longer one is
// truncated (GetModuleFileNameW with a buffer of 260). Empty on failure.
[[nodiscard]] std::wstring ProgramPath();

// Returns the folder, without a trailing separator, of the module that contains an address: the
// running program or a library (GetModuleFileNameW without a limit; the loader's link map,
// /proc/self/exe). Empty on failure.
[[nodiscard]] std::wstring FolderOfModule(const void* address);

// Returns the module that contains an address, referenced until the object is destroyed
// (GetModuleHandleExW with GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS); invalid if there is none.
[[nodiscard]] Library ModuleOfAddress(const void* address) noexcept;

}  // namespace platform
