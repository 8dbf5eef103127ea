// Process settings of a program that runs unattended.
#include "platform/unattended_win32.h"

#include <windows.h>

// Initialises a static object of this file before all others. GCC specifies this per object, Visual
// Studio per file, with a warning that this is meant for libraries.
#ifdef _MSC_VER
#pragma warning(disable : 4073)
#pragma init_seg(lib)
#define KYD_INITIALISED_FIRST
#else
#define KYD_INITIALISED_FIRST __attribute__((init_priority(101)))
#endif

namespace platform {
namespace {

struct Unattended {
  Unattended() noexcept { RunUnattended(); }
};
KYD_INITIALISED_FIRST const Unattended unattended;

}  // namespace

void RunUnattended() noexcept {
  // Flags that the parent process has set stay set.
  SetErrorMode(GetErrorMode() | SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
  SetDllDirectoryW(L"");
}

}  // namespace platform
