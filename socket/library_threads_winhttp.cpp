// WinHTTP's threads are the system's.
#include "socket/library_threads.h"

namespace CorvidSocket {

void LimitLibraryThreads() noexcept {}

}  // namespace CorvidSocket
