#include "tests/unit/support/failing_calls_posix.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <thread>

#include "tests/unit/support/failing_seek.h"

namespace kyd_test {
namespace {

using Filter = std::vector<sock_filter>;

void Append(Filter& filter, unsigned number, const std::optional<CallArgument>& argument,
            std::uint32_t answer) {
  filter.push_back(
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offsetof(seccomp_data, nr))));
  filter.push_back(
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, static_cast<unsigned char>(argument ? 3 : 1)));
  if (argument) {
    // Little-endian: the lower half of an argument comes first.
    const auto offset = offsetof(seccomp_data, args) + 8 * std::size_t{argument->position};
    filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offset)));
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, argument->value, 0, 1));
  }
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, answer));
}

bool Install(Filter& filter) {
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

bool RunBehind(Filter filter, const std::function<bool()>& function) {
  bool installed = false;
  bool result = false;
  std::thread thread([&] {
    installed = Install(filter);
    result = installed && function();
  });
  thread.join();
  EXPECT_TRUE(installed) << "cannot install a system call filter";
  return result;
}

// The sixth argument for Perform: system calls with fewer arguments ignore it.
constexpr long kPerform = 0x6B796421;

thread_local const Instead* replacement = nullptr;

// The kernel reports a filtered call with this signal; the call returns the value that the handler
// leaves in the result register.
void TakeCall(int /*signal*/, siginfo_t* info, void* context) {
  const int error_number = errno;
  auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
  const SystemCall call{
      static_cast<unsigned>(info->si_syscall),
      {static_cast<long>(registers[REG_RDI]), static_cast<long>(registers[REG_RSI]),
       static_cast<long>(registers[REG_RDX]), static_cast<long>(registers[REG_R10]),
       static_cast<long>(registers[REG_R8])}};
  registers[REG_RAX] = (*replacement)(call);
  errno = error_number;
}

// The `which`-th call gets a special result, all others the kernel's.
Instead Nth(int which, std::function<long(const SystemCall&)> result) {
  return [which, result = std::move(result), count = 0](const SystemCall& call) mutable {
    return ++count == which ? result(call) : call.Perform();
  };
}

}  // namespace

CallArgument CallArgument::Path(unsigned position, const char* path) noexcept {
  return {position, static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(path))};
}

bool RunWithout(const std::vector<FailingCall>& calls, const std::function<bool()>& function) {
  Filter filter;
  for (const FailingCall& call : calls) {
    Append(filter, call.number, call.argument,
           SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(call.error_number));
  }
  return RunBehind(std::move(filter), function);
}

long SystemCall::Perform() const noexcept {
  const long result = syscall(static_cast<long>(number), arguments[0], arguments[1], arguments[2],
                              arguments[3], arguments[4], kPerform);
  return result < 0 ? -errno : result;
}

bool RunWithInstead(const std::vector<unsigned>& numbers, const Instead& instead,
                    const std::function<bool()>& function) {
  struct sigaction taking = {};
  struct sigaction earlier = {};
  taking.sa_sigaction = &TakeCall;
  taking.sa_flags = SA_SIGINFO;
  EXPECT_EQ(sigaction(SIGSYS, &taking, &earlier), 0);
  Filter filter;
  for (const unsigned number : numbers) {
    Append(filter, number, CallArgument{5, static_cast<std::uint32_t>(kPerform)},
           SECCOMP_RET_ALLOW);
    Append(filter, number, std::nullopt, SECCOMP_RET_TRAP);
  }
  const bool result = RunBehind(std::move(filter), [&] {
    replacement = &instead;
    return function();
  });
  sigaction(SIGSYS, &earlier, nullptr);
  return result;
}

Instead DoneButFailing(int error_number, int which) {
  return Nth(which, [error_number](const SystemCall& call) {
    static_cast<void>(call.Perform());
    return -static_cast<long>(error_number);
  });
}

Instead Failing(int error_number, int which) {
  return Nth(which, [error_number](const SystemCall& /*call*/) {
    return -static_cast<long>(error_number);
  });
}

std::vector<FailingCall> WithoutFstat(int error_number) {
  return {{SYS_fstat, error_number, std::nullopt},
          {SYS_newfstatat, error_number, CallArgument{3, AT_EMPTY_PATH}}};
}

std::vector<FailingCall> WithoutLstat(int error_number) {
  return {{SYS_lstat, error_number, std::nullopt},
          {SYS_statx, error_number, std::nullopt},
          {SYS_newfstatat, error_number, CallArgument{3, AT_SYMLINK_NOFOLLOW}}};
}

void RunWithoutSeeking(const std::function<void()>& function) {
  RunWithout({{SYS_lseek, EIO, std::nullopt}}, [&] {
    function();
    return true;
  });
}

}  // namespace kyd_test
