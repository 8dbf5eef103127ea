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
  EXPECT_TRUE(installed) << "system calls cannot be filtered here";
  return result;
}

thread_local const std::function<long()>* replacement = nullptr;

// The kernel delivers a filtered call as this signal; what the handler leaves in the register of
// results is what the call gives.
void TakeCall(int /*signal*/, siginfo_t* /*info*/, void* context) {
  const int error_number = errno;
  static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RAX] = (*replacement)();
  errno = error_number;
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

bool RunWithInstead(unsigned number, const std::function<long()>& instead,
                    const std::function<bool()>& function) {
  struct sigaction taking = {};
  struct sigaction earlier = {};
  taking.sa_sigaction = &TakeCall;
  taking.sa_flags = SA_SIGINFO;
  EXPECT_EQ(sigaction(SIGSYS, &taking, &earlier), 0);
  Filter filter;
  Append(filter, number, std::nullopt, SECCOMP_RET_TRAP);
  const bool result = RunBehind(std::move(filter), [&] {
    replacement = &instead;
    return function();
  });
  sigaction(SIGSYS, &earlier, nullptr);
  return result;
}

std::vector<FailingCall> WithoutFstat(int error_number) {
  return {{SYS_fstat, error_number, std::nullopt},
          {SYS_newfstatat, error_number, CallArgument{3, AT_EMPTY_PATH}}};
}

std::vector<FailingCall> WithoutLstat(int error_number) {
  return {{SYS_lstat, error_number, std::nullopt},
          {SYS_newfstatat, error_number, CallArgument{3, AT_SYMLINK_NOFOLLOW}}};
}

}  // namespace kyd_test
