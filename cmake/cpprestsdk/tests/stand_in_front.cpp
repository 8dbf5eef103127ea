// Stands in front of calls of the system when it is preloaded; see test_library.py. The environment
// says what happens:
//
//   RESOLVER_SECONDS   getaddrinfo takes so long
//   RESOLVER_FILE      getaddrinfo gives the address in this file, and adds a line to the file
//                      <this file>.asked
//   FAILING_READ       number of the pread that fails with EIO
//   SEND_BUFFER        bytes of each socket's send buffer
//   SENDS_FILE         gets the number of sends, and of those that came right after another one of
//                      their thread, with no wait in between
#undef _FORTIFY_SOURCE  // its pread would be inline
#include <dlfcn.h>
#include <netdb.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

namespace {

template <class Call>
Call Next(Call /*type*/, const char* name) {
  return reinterpret_cast<Call>(dlsym(RTLD_NEXT, name));
}

// What the test asks of this library; the probe leaves its environment alone.
const char* Setting(const char* name) {
  return std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
}

long Number(const char* text) {
  return std::strtol(text, nullptr, 10);
}

ssize_t Read(int file, void* buffer, size_t count, off_t offset) {
  static std::atomic<int> calls{0};
  const char* const failing = Setting("FAILING_READ");
  if (failing != nullptr && ++calls == Number(failing)) {
    errno = EIO;
    return -1;
  }
  return Next(&pread, "pread64")(file, buffer, count, offset);
}

thread_local bool just_sent = false;

class Sends {
 public:
  ~Sends() {
    if (const char* const file = Setting("SENDS_FILE")) {
      std::ofstream(file) << all << " " << in_a_row << "\n";
    }
  }

  std::atomic<int> all{0};
  std::atomic<int> in_a_row{0};
};

Sends sends;

}  // namespace

extern "C" ssize_t send(int file, const void* data, size_t size, int flags) {
  ++sends.all;
  sends.in_a_row += just_sent ? 1 : 0;
  just_sent = true;
  return Next(&send, "send")(file, data, size, flags);
}

extern "C" int socket(int domain, int type, int protocol) {
  const int result = Next(&socket, "socket")(domain, type, protocol);
  if (const char* const text = Setting("SEND_BUFFER")) {
    const int bytes = static_cast<int>(Number(text));
    setsockopt(result, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
  }
  return result;
}

extern "C" int epoll_wait(int epoll, epoll_event* events, int most, int milliseconds) {
  just_sent = false;
  return Next(&epoll_wait, "epoll_wait")(epoll, events, most, milliseconds);
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
  std::string address;
  std::ifstream(file) >> address;
  std::ofstream(std::string(file) + ".asked", std::ios::app) << name << "\n";
  return next(address.c_str(), service, hints, result);
}

extern "C" ssize_t pread(int file, void* buffer, size_t count, off_t offset) {
  return Read(file, buffer, count, offset);
}

extern "C" ssize_t pread64(int file, void* buffer, size_t count, off_t offset) {
  return Read(file, buffer, count, offset);
}
