// Replaces the companion library and records the error mode in which it is loaded. It has none of
// the library's exports, so the program ends without a run.
#include <windows.h>

#include <cstdio>
#include <cwchar>

namespace {

// Writes the number to "error-mode" in the library's folder.
void WriteErrorMode(HMODULE library) {
  constexpr DWORD kCapacity = 4096;
  wchar_t path[kCapacity + 16];
  const DWORD size = GetModuleFileNameW(library, path, kCapacity);
  wchar_t* const name = size == 0 || size == kCapacity ? nullptr : std::wcsrchr(path, L'\\');
  if (name == nullptr) {
    return;
  }
  std::wcscpy(name + 1, L"error-mode");
  if (std::FILE* const file = _wfopen(path, L"w")) {
    std::fprintf(file, "%u", GetErrorMode());
    std::fclose(file);
  }
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE library, DWORD reason, void* reserved);
extern "C" BOOL WINAPI DllMain(HINSTANCE library, DWORD reason, void* /*reserved*/) {
  if (reason == DLL_PROCESS_ATTACH) {
    WriteErrorMode(library);
  }
  return TRUE;
}
