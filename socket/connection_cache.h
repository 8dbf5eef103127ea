// What the connections to the service have in common, kept from one to the next.
#pragma once

#include <memory>

namespace CorvidSocket {

// Settings, TLS sessions and addresses, as far as the library behind it can use them again; a null
// one shares nothing. Only connections with the same client certificate, or all with none, may
// share one; connections that validate the server keep their settings and sessions apart from those
// that do not. WinHTTP does the same by itself, so that there is nothing to keep on Windows.
using ConnectionCache = std::shared_ptr<void>;

// May be null. Throws std::bad_alloc.
[[nodiscard]] ConnectionCache MakeConnectionCache();

}  // namespace CorvidSocket
