// System calls that fail, or are interrupted by other actions, as often as a test needs.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace kyd_test {

// Selects calls by one of their arguments.
struct CallArgument {
  unsigned position;    // 0 is the first
  std::uint32_t value;  // its lower 32 bits

  // Matches a path by its address, so it must be passed on unchanged.
  [[nodiscard]] static CallArgument Path(unsigned position, const char* path) noexcept;
};

// A system call for which the kernel returns an error number immediately; with 0 it does nothing
// and returns 0.
struct FailingCall {
  unsigned number;  // SYS_...
  int error_number;
  std::optional<CallArgument> argument;  // none: all calls with that number
};

// Runs a function in a thread in which some system calls fail (seccomp filters apply to a thread),
// and returns its result. LastError and errno belong to that thread: read them inside.
bool RunWithout(const std::vector<FailingCall>& calls, const std::function<bool()>& function);

// An intercepted system call.
struct SystemCall {
  unsigned number;                // SYS_...
  std::array<long, 5> arguments;  // calls with more cannot be intercepted

  // Lets the kernel perform the call and returns the result, a negated error number on failure.
  [[nodiscard]] long Perform() const noexcept;
};

// Returns the result of a call, a negated error number for a failure.
using Instead = std::function<long(const SystemCall&)>;

// Runs a function in a thread in which `instead` replaces some system calls. `instead` must not
// make these calls itself, except through Perform.
bool RunWithInstead(const std::vector<unsigned>& numbers, const Instead& instead,
                    const std::function<bool()>& function);

// The `which`-th call, counted from 1, is performed but fails with an error number.
[[nodiscard]] Instead DoneButFailing(int error_number, int which = 1);

// The `which`-th call fails with an error number without being performed.
[[nodiscard]] Instead Failing(int error_number, int which = 1);

// fstat of any file fails; stat and lstat do not.
[[nodiscard]] std::vector<FailingCall> WithoutFstat(int error_number);

// lstat of any path fails, also through statx; stat and fstat do not.
[[nodiscard]] std::vector<FailingCall> WithoutLstat(int error_number);

}  // namespace kyd_test
