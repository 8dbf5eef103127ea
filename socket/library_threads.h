// The REST library's threads.
#pragma once

namespace CorvidSocket {

// Limits the library's pool to the threads that one upload at a time needs, if there is no pool
// yet. To be called right before the library is first used for a file: a run that finds nothing to
// send then needs neither a thread nor OpenSSL. Windows has a pool of its own.
void LimitLibraryThreads() noexcept;

}  // namespace CorvidSocket
