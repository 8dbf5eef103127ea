// A program that runs where no user watches.
#include "platform/unattended_win32.h"

#include <windows.h>

namespace platform {

void RunUnattended() noexcept {
  // What the starting process has switched off stays off.
  SetErrorMode(GetErrorMode() | SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
  SetDllDirectoryW(L"");
}

}  // namespace platform
