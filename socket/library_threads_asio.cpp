// The thread pool of the library's Asio back end.
#include <pplx/threadpool.h>

#include <cstddef>
#include <mutex>

#include "socket/library_threads.h"

namespace CorvidSocket {

namespace {

// The library would start 40 threads, which wake each other for every block of a file and each need
// a stack and a part of the heap. A run uploads one file at a time. If a handler waits for another,
// the library adds a thread.
constexpr std::size_t kLibraryThreads = 1;

}  // namespace

void LimitLibraryThreads() noexcept {
  try {
    static std::once_flag done;
    std::call_once(done, [] { crossplat::threadpool::initialize_with_threads(kLibraryThreads); });
  } catch (...) {
    // The pool exists already, or its first use creates it and fails where failures are handled.
  }
}

}  // namespace CorvidSocket
