// WinHTTP uses the system's threads.
#include "socket/library_threads.h"

namespace CorvidSocket {

void LimitLibraryThreads() noexcept {}

}  // namespace CorvidSocket
