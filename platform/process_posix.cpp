// The numbers of session, process and thread on Linux.
#include "platform/process.h"

#include <unistd.h>

namespace platform {

std::uint32_t SessionId() noexcept {
  const pid_t session = getsid(0);
  return session < 0 ? 0 : static_cast<std::uint32_t>(session);
}

std::uint32_t ProcessId() noexcept {
  return static_cast<std::uint32_t>(getpid());
}

std::uint32_t ThreadId() noexcept {
  return static_cast<std::uint32_t>(gettid());
}

bool IsWow64Process() noexcept {
  return false;
}

}  // namespace platform
