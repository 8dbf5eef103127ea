// WinHTTP uses the system's threads.
#include "socket/library_threads.h"

namespace CorvidSocket {

void PrepareLibrary() noexcept {}

void RunLibraryUntil(const std::function<bool()>& /*is_done*/) {}

}  // namespace CorvidSocket
