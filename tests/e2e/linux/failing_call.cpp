// Preloaded into the program: lets one chosen call of one chosen function fail.
//
// KYD_CALLS names a file that takes a line with the name of each call. KYD_FAILING_CALL is the name
// of a function, a colon and the number of the call that fails, from 1. Only calls that the
// program's own file makes are counted, so a library's inner life stays out of it.
#include <dlfcn.h>
#include <netdb.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

bool IsOfTheProgram(const void* caller) {
  static const void* const program = [] {
    Dl_info info{};
    dladdr(dlsym(RTLD_DEFAULT, "_start"), &info);
    return info.dli_fbase;
  }();
  Dl_info info{};
  return dladdr(caller, &info) != 0 &&
         (info.dli_fbase == program || std::strstr(info.dli_fname, "/KydLogUploader") != nullptr);
}

// What the test asks of this library; the program leaves its environment alone.
const char* Setting(const char* name) {
  return std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
}

void Note(const char* name) {
  static const char* const path = Setting("KYD_CALLS");
  if (path == nullptr) {
    return;
  }
  static const long file =
      syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  const std::string line = std::string(name) + "\n";
  syscall(SYS_write, file, line.data(), line.size());
}

// Whether this call is the one; it then has errno set.
bool Fails(const char* name, const void* caller) {
  if (!IsOfTheProgram(caller)) {
    return false;
  }
  const int kept = errno;
  Note(name);
  errno = kept;
  static const char* const chosen = Setting("KYD_FAILING_CALL");
  if (chosen == nullptr) {
    return false;
  }
  static const std::string function(chosen, std::strcspn(chosen, ":"));
  static const long number = std::strtol(chosen + function.size() + 1, nullptr, 10);
  static std::atomic<int> calls{0};
  if (function != name || ++calls != number) {
    return false;
  }
  errno = EIO;
  return true;
}

template <typename Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The label gives each stand-in the name of its function without the function's own declaration,
// which differs in what no caller can see. On x86-64 a call with too many integer arguments is
// harmless, so one shape fits all functions.
#define KYD_MAY_FAIL(name, Result, value)                                              \
  extern "C" Result Failing_##name(long a, long b, long c, long d, long e) asm(#name); \
  extern "C" Result Failing_##name(long a, long b, long c, long d, long e) {           \
    if (Fails(#name, __builtin_return_address(0))) {                                   \
      return value;                                                                    \
    }                                                                                  \
    static const auto real = Real<Result(long, long, long, long, long)>(#name);        \
    return real(a, b, c, d, e);                                                        \
  }

KYD_MAY_FAIL(connect, int, -1)
KYD_MAY_FAIL(epoll_create1, int, -1)
KYD_MAY_FAIL(epoll_ctl, int, -1)
KYD_MAY_FAIL(epoll_wait, int, -1)
KYD_MAY_FAIL(eventfd, int, -1)
KYD_MAY_FAIL(fchmod, int, -1)
KYD_MAY_FAIL(fchown, int, -1)
KYD_MAY_FAIL(fcntl, int, -1)
KYD_MAY_FAIL(flock, int, -1)
KYD_MAY_FAIL(fstat, int, -1)
KYD_MAY_FAIL(fstatat, int, -1)
KYD_MAY_FAIL(fsync, int, -1)
KYD_MAY_FAIL(futimens, int, -1)
KYD_MAY_FAIL(getaddrinfo, int, EAI_FAIL)
KYD_MAY_FAIL(getsockopt, int, -1)
KYD_MAY_FAIL(ioctl, int, -1)
KYD_MAY_FAIL(link, int, -1)
KYD_MAY_FAIL(lseek, long, -1)
KYD_MAY_FAIL(lstat, int, -1)
KYD_MAY_FAIL(mkdir, int, -1)
KYD_MAY_FAIL(mkostemp, int, -1)
KYD_MAY_FAIL(open, int, -1)
KYD_MAY_FAIL(opendir, void*, nullptr)
KYD_MAY_FAIL(pipe, int, -1)
KYD_MAY_FAIL(poll, int, -1)
KYD_MAY_FAIL(pread, long, -1)
KYD_MAY_FAIL(pwrite, long, -1)
KYD_MAY_FAIL(read, long, -1)
KYD_MAY_FAIL(readdir, void*, nullptr)
KYD_MAY_FAIL(readlink, long, -1)
KYD_MAY_FAIL(recv, long, -1)
KYD_MAY_FAIL(rename, int, -1)
KYD_MAY_FAIL(renameat2, int, -1)
KYD_MAY_FAIL(send, long, -1)
KYD_MAY_FAIL(setsockopt, int, -1)
KYD_MAY_FAIL(shutdown, int, -1)
KYD_MAY_FAIL(socket, int, -1)
KYD_MAY_FAIL(stat, int, -1)
KYD_MAY_FAIL(statx, int, -1)
KYD_MAY_FAIL(timerfd_create, int, -1)
KYD_MAY_FAIL(timerfd_settime, int, -1)
KYD_MAY_FAIL(unlink, int, -1)

// Eight bytes are what wakes a waiting thread of the library (eventfd).
extern "C" long Failing_write(int file, const void* bytes, unsigned long size) asm("write");
extern "C" long Failing_write(int file, const void* bytes, unsigned long size) {
  if (Fails(size == 8 ? "wake" : "write", __builtin_return_address(0))) {
    return -1;
  }
  return syscall(SYS_write, file, bytes, size);
}

// Its file is closed all the same, as the system does it.
extern "C" int Failing_close(int file) asm("close");
extern "C" int Failing_close(int file) {
  const bool fails = Fails("close", __builtin_return_address(0));
  const long result = syscall(SYS_close, file);
  if (fails) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(result);
}

// The loader judges by the caller where it searches, so it has to be jumped to.
extern "C" void* Failing_dlopen(const char* name, int flags) asm("dlopen");
extern "C" void* Failing_dlopen(const char* name, int flags) {
  if (Fails("dlopen", __builtin_return_address(0))) {
    return nullptr;
  }
  static const auto real = Real<void*(const char*, int)>("dlopen");
  return real(name, flags);
}
