// The numbers of session, process and thread on Linux.
#include "platform/process.h"

#include <unistd.h>

namespace platform {

// Asked once: they stay what they are, and each would be a system call in every line of the log.

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
