// WinHTTP uses the system's threads.
#include "socket/library_threads.h"

namespace CorvidSocket {

void PrepareLibraryThreads() noexcept {}

pplx::task_options OnLibraryThread() {
  return {};
}

}  // namespace CorvidSocket
