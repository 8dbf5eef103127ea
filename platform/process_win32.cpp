// Session, process and thread ids on Windows.
#include "platform/process.h"

#include <windows.h>

namespace platform {

std::uint32_t SessionId() noexcept {
  DWORD session = 0;
  return ProcessIdToSessionId(::GetCurrentProcessId(), &session) ? session : 0;
}

std::uint32_t ProcessId() noexcept {
  return ::GetCurrentProcessId();
}

std::uint32_t ThreadId() noexcept {
  return ::GetCurrentThreadId();
}

bool IsWow64Process() noexcept {
  const HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
  if (kernel == nullptr) {
    return false;
  }
  using Function = BOOL(WINAPI*)(HANDLE, PBOOL);
  // Through void*: the compiler warns about a cast between function types.
  const auto function =
      reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(kernel, "IsWow64Process")));
  BOOL is_wow64 = FALSE;
  return function != nullptr && function(GetCurrentProcess(), &is_wow64) && is_wow64;
}

}  // namespace platform
