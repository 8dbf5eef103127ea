// The REST library's threads.
#pragma once

namespace CorvidSocket {

// Limits the library's pool to the threads that one upload at a time needs, unless the pool exists
// already. Call it right before the library is first used for a file: a run without files then
// needs neither a thread nor OpenSSL. Windows has its own pool.
void LimitLibraryThreads() noexcept;

}  // namespace CorvidSocket
