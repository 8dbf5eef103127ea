// System calls that fail, or during which something happens, as often as a test needs it.
#pragma once

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

// Runs a function in a thread in which `instead` takes the place of a system call: its result is
// the call's, a negative one an error number. `instead` must not use that call itself.
bool RunWithInstead(unsigned number, const std::function<long()>& instead,
                    const std::function<bool()>& function);

// fstat of any file fails, stat and lstat do not.
[[nodiscard]] std::vector<FailingCall> WithoutFstat(int error_number);

// lstat of any path fails, stat and fstat do not.
[[nodiscard]] std::vector<FailingCall> WithoutLstat(int error_number);

}  // namespace kyd_test
