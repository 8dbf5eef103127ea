// Identifiers of the current process.
#pragma once

#include <cstdint>
#include <optional>

namespace platform {

// Returns the Terminal Services session of the process (ProcessIdToSessionId), 0 on failure; on
// Linux the POSIX session, getsid(0).
[[nodiscard]] std::uint32_t SessionId() noexcept;

[[nodiscard]] std::uint32_t ProcessId() noexcept;

// Returns the id of the calling thread (GetCurrentThreadId); on Linux the kernel's thread id.
[[nodiscard]] std::uint32_t ThreadId() noexcept;

// Returns whether this is a 32-bit process on 64-bit Windows (IsWow64Process, looked up by name).
// False if the system has no such function or the call fails; always false on Linux.
[[nodiscard]] bool IsWow64Process() noexcept;

}  // namespace platform
