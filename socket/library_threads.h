// Where the REST library runs.
#pragma once

#include <pplx/pplxtasks.h>

#include <functional>

namespace CorvidSocket {

// Sets up the library so that it needs no thread but the one that resolves names: a task runs on
// the thread that creates it, a continuation on the thread that completes the previous task
// (pplx::scheduler_interface), and connection handlers run on the thread in `Await`.
// Call it right before the library is first used for a file: a run without files then needs no
// OpenSSL. On Windows it does nothing: there the library uses the system's thread pool.
void PrepareLibrary() noexcept;

// Runs the handlers of the library's connections until `is_done` returns true. Throws what a
// handler throws; later calls then throw as well, because the task of that handler never completes.
// On Windows it returns at once.
void RunLibraryUntil(const std::function<bool()>& is_done);

// Returns a task's result or throws its exception. Use it instead of `get()` and `wait()`, which
// would wait forever for handlers that only this thread runs.
template <class Result>
Result Await(const pplx::task<Result>& task) {
  RunLibraryUntil([&task] { return task.is_done(); });
  return task.get();
}

}  // namespace CorvidSocket
