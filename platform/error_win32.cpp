// The thread's last error number, kept by Windows.
#include "platform/error.h"

#include <windows.h>

namespace platform {

unsigned LastError() noexcept {
  return ::GetLastError();
}

void SetLastError(unsigned error) noexcept {
  ::SetLastError(error);
}

}  // namespace platform
