// The threads on which the REST library works.
#pragma once

namespace CorvidSocket {

// Gives the library as many threads as one file under way needs, if it has none yet. To be called
// before the library is first used for a file, and not earlier: a process without threads, as it is
// when there is nothing to send, opens and closes files in half the time. Windows has its own pool.
void LimitLibraryThreads() noexcept;

}  // namespace CorvidSocket
