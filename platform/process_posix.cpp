// Session, process and thread ids on Linux.
#include "platform/process.h"

#include <unistd.h>

namespace platform {

// Cached: they never change, and each would be a system call for every log line.

std::uint32_t SessionId() noexcept {
  static const pid_t session = getsid(0);
  return session < 0 ? 0 : static_cast<std::uint32_t>(session);
}

std::uint32_t ProcessId() noexcept {
  static const pid_t process = getpid();
  return static_cast<std::uint32_t>(process);
}

std::uint32_t ThreadId() noexcept {
  static thread_local const pid_t thread = gettid();
  return static_cast<std::uint32_t>(thread);
}

bool IsWow64Process() noexcept {
  return false;
}

}  // namespace platform
