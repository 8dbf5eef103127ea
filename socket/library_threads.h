// The REST library's threads.
#pragma once

#include <pplx/pplxtasks.h>

namespace CorvidSocket {

// Gives the library one thread, enough for one upload at a time, unless it has its threads already,
// and runs tasks on the thread that creates them, and a continuation on the thread that completes
// the task before (pplx::scheduler_interface). Call it right before the library is first used for a
// file: a run without files then needs neither a thread nor OpenSSL. Windows has its own pool.
void PrepareLibraryThreads() noexcept;

// Options for tasks that use connections: they run on the library's thread; no other thread uses
// connections. On Windows, the default options.
[[nodiscard]] pplx::task_options OnLibraryThread();

}  // namespace CorvidSocket
