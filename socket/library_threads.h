// The threads on which the REST library works.
#pragma once

namespace CorvidSocket {

// Gives the library as many threads as one file under way needs, if it has none yet. To be called
// before the library is first used for a file, and not earlier: a run that finds nothing to send
// then needs neither a thread nor OpenSSL. Windows has a pool of its own.
void LimitLibraryThreads() noexcept;

}  // namespace CorvidSocket
