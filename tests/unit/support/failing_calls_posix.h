// System calls that fail, or during which something happens, as often as a test needs it.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace kyd_test {

// Which calls of one kind are meant, by one of their arguments.
struct CallArgument {
  unsigned position;    // 0 is the first
  std::uint32_t value;  // its lower 32 bits

  // A path that is handed over as it is, by its address.
  [[nodiscard]] static CallArgument Path(unsigned position, const char* path) noexcept;
};

// A system call that the kernel answers with an error number at once; 0 lets it do nothing and give
// 0.
struct FailingCall {
  unsigned number;  // SYS_...
  int error_number;
  std::optional<CallArgument> argument;  // without it every call of that number
};

// Runs a function in a thread in which some system calls fail (seccomp filters are a thread's own);
// gives its result. LastError and errno are the thread's: look at them inside.
bool RunWithout(const std::vector<FailingCall>& calls, const std::function<bool()>& function);

// A system call on its way to the kernel.
struct SystemCall {
  unsigned number;                // SYS_...
  std::array<long, 5> arguments;  // calls with more cannot be taken

  // Lets the kernel do it and returns the result, a negative one an error number.
  [[nodiscard]] long Perform() const noexcept;
};

// Gives the result of a call; a negative one is an error number.
using Instead = std::function<long(const SystemCall&)>;

// Runs a function in a thread in which `instead` takes the place of some system calls. `instead`
// must not use those calls itself, other than through Perform.
bool RunWithInstead(const std::vector<unsigned>& numbers, const Instead& instead,
                    const std::function<bool()>& function);

// The `which`-th call, from 1 on, is done, but fails with an error number.
[[nodiscard]] Instead DoneButFailing(int error_number, int which = 1);

// The `which`-th call fails with an error number without being done.
[[nodiscard]] Instead Failing(int error_number, int which = 1);

// fstat of any file fails, stat and lstat do not.
[[nodiscard]] std::vector<FailingCall> WithoutFstat(int error_number);

// lstat of any path fails, also through statx; stat and fstat do not.
[[nodiscard]] std::vector<FailingCall> WithoutLstat(int error_number);

}  // namespace kyd_test
