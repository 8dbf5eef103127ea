// A getaddrinfo that takes 6 seconds, preloaded by the test of the resolver's time-out.
#include <dlfcn.h>
#include <netdb.h>
#include <unistd.h>

extern "C" int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                           addrinfo** result) {
  sleep(6);
  const auto next = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return next(name, service, hints, result);
}
