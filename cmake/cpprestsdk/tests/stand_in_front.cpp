// Replaces system calls when it is preloaded; see test_library.py. Controlled by the environment:
//
//   RESOLVER_SECONDS   duration of getaddrinfo
//   RESOLVER_FILE      getaddrinfo returns the addresses in this file, and appends a line to a file
//                      of the same name with ".asked" appended
//   FAILING_READ       number of the pread that fails with EIO
//   INTERRUPTED_READS  one in this many preads fails with EINTR
//   SHORT_READS        maximum number of bytes that a pread returns
//   SHORT_READ         ... only for the pread with this number
//   BUSY_FILE          an open of this file fails with EAGAIN, unless it may block
//   INTERRUPTED_OPENS  the first opens of regular files, this many, fail with EINTR
//   SLOW_CONNECTS      the first connects, this many, take MILLISECONDS (another setting) each, and
//                      are refused
//   NOT_WATCHED        epoll_ctl fails with ENOMEM for files of this kind, such as "eventfd"
#undef _FORTIFY_SOURCE  // its pread would be inline
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace {

template <class Call>
Call Next(Call /*type*/, const char* name) {
  return reinterpret_cast<Call>(dlsym(RTLD_NEXT, name));
}

// Reads a setting of this library. The probe does not change its environment.
const char* Setting(const char* name) {
  return std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
}

long Number(const char* text) {
  return std::strtol(text, nullptr, 10);
}

// 0 if not set.
long NumberOf(const char* name) {
  const char* const text = Setting(name);
  return text == nullptr ? 0 : Number(text);
}

ssize_t Read(int file, void* buffer, size_t count, off_t offset) {
  static std::atomic<int> calls{0};
  const int call = ++calls;
  const long interrupted = NumberOf("INTERRUPTED_READS");
  if (call == NumberOf("FAILING_READ") || (interrupted != 0 && call % interrupted == 0)) {
    errno = call == NumberOf("FAILING_READ") ? EIO : EINTR;
    return -1;
  }
  const long most = NumberOf("SHORT_READS");
  const long only = NumberOf("SHORT_READ");
  if (most != 0 && (only == 0 || call == only)) {
    count = std::min(count, static_cast<size_t>(most));
  }
  return Next(&pread, "pread64")(file, buffer, count, offset);
}

int Open(const char* name, int flags, mode_t mode) {
  static std::atomic<int> opened{0};
  struct stat status {};
  const bool regular = stat(name, &status) == 0 && S_ISREG(status.st_mode);
  if (regular && (flags & O_NONBLOCK) != 0 && opened++ < NumberOf("INTERRUPTED_OPENS")) {
    errno = EINTR;
    return -1;
  }
  const char* const busy = Setting("BUSY_FILE");
  if (busy != nullptr && std::strcmp(busy, name) == 0 && (flags & O_NONBLOCK) != 0) {
    errno = EAGAIN;
    return -1;
  }
  return Next(&open, "open")(name, flags, mode);
}

}  // namespace

extern "C" int open(const char* name, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return Open(name, flags, mode);
}

extern "C" int connect(int file, const sockaddr* address, socklen_t size) {
  static std::atomic<int> calls{0};
  if (calls++ < NumberOf("SLOW_CONNECTS")) {
    std::this_thread::sleep_for(std::chrono::milliseconds(NumberOf("MILLISECONDS")));
    errno = ECONNREFUSED;
    return -1;
  }
  return Next(&connect, "connect")(file, address, size);
}

extern "C" int epoll_ctl(int epoll, int operation, int file, epoll_event* event) {
  const char* const kind = Setting("NOT_WATCHED");
  if (kind != nullptr && operation == EPOLL_CTL_ADD) {
    const auto link = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file));
    if (link.string().find(kind) != std::string::npos) {
      errno = ENOMEM;
      return -1;
    }
  }
  return Next(&epoll_ctl, "epoll_ctl")(epoll, operation, file, event);
}

extern "C" int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                           addrinfo** result) {
  if (const char* const seconds = Setting("RESOLVER_SECONDS")) {
    std::this_thread::sleep_for(std::chrono::seconds(Number(seconds)));
  }
  const auto next = Next(&getaddrinfo, "getaddrinfo");
  const char* const file = Setting("RESOLVER_FILE");
  if (file == nullptr) {
    return next(name, service, hints, result);
  }
  std::ofstream(std::string(file) + ".asked", std::ios::app) << name << "\n";
  std::ifstream addresses(file);
  addrinfo** end = result;  // a linked list, whose items are freed one by one
  int failure = 0;
  for (std::string address; failure == 0 && addresses >> address;) {
    failure = next(address.c_str(), service, hints, end);
    while (failure == 0 && *end != nullptr) {
      end = &(*end)->ai_next;
    }
  }
  return failure;
}

extern "C" ssize_t pread(int file, void* buffer, size_t count, off_t offset) {
  return Read(file, buffer, count, offset);
}

extern "C" ssize_t pread64(int file, void* buffer, size_t count, off_t offset) {
  return Read(file, buffer, count, offset);
}
