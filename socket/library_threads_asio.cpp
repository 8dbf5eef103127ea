// The library's Asio back end runs on the thread that waits for it.
#include <pplx/threadpool.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "socket/library_threads.h"

namespace CorvidSocket {

namespace {

// Runs a task at once, on the calling thread.
class InlineScheduler final : public pplx::scheduler_interface {
 public:
  void schedule(pplx::TaskProc_t run, void* argument) override { run(argument); }
};

}  // namespace

// By default the library starts 40 threads, which wake each other for every block of a file and
// each need a stack and a part of the heap. A run uploads one file at a time and only waits
// meanwhile.
void PrepareLibrary() noexcept {
  try {
    static std::once_flag scheduler;
    std::call_once(scheduler,
                   [] { pplx::set_ambient_scheduler(std::make_shared<InlineScheduler>()); });
    static std::once_flag pool;
    std::call_once(pool, [] { crossplat::threadpool::initialize_with_threads(0); });
  } catch (...) {
    // Either a scheduler or the pool already exists, or the pool's first use creates it, where
    // failures are handled.
  }
}

void RunLibraryUntil(const std::function<bool()>& is_done) {
  // Not forever: Asio continues even if epoll could not register the wake-up descriptor.
  constexpr std::chrono::milliseconds kLongestSleep{100};
  auto& service = crossplat::threadpool::shared_instance().service();
  while (!is_done()) {
    if (service.stopped()) {
      throw std::runtime_error("an exception has ended the library's work");
    }
    try {
      service.run_one_for(kLongestSleep);
    } catch (...) {
      // Whatever the handler would have completed, such as the task, never completes.
      service.stop();
      throw;
    }
  }
}

}  // namespace CorvidSocket
