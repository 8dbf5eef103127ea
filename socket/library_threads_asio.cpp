// The threads of the library's Asio back end.
#include <pplx/threadpool.h>

#include <cstddef>
#include <memory>
#include <mutex>

#include "socket/library_threads.h"

namespace CorvidSocket {

namespace {

// The library would start 40 threads, which wake each other for every block of a file and each need
// a stack and a part of the heap. A run uploads one file at a time. If a handler waits for another,
// the library adds a thread.
constexpr std::size_t kLibraryThreads = 1;

// Runs a task at once, on the calling thread. Otherwise opening a file and finishing an answer
// would each wake the pool's thread, while the main thread waits for it.
class InlineScheduler final : public pplx::scheduler_interface {
 public:
  void schedule(pplx::TaskProc_t run, void* argument) override { run(argument); }
};

}  // namespace

void PrepareLibraryThreads() noexcept {
  try {
    static std::once_flag done;
    std::call_once(done, [] {
      pplx::set_ambient_scheduler(std::make_shared<InlineScheduler>());
      crossplat::threadpool::initialize_with_threads(kLibraryThreads);
    });
  } catch (...) {
    // A scheduler or the pool exists already, or the pool's first use creates it and fails where
    // failures are handled.
  }
}

pplx::task_options OnLibraryThread() {
  return {std::make_shared<pplx::default_scheduler_t>()};
}

}  // namespace CorvidSocket
