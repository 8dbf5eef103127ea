// Writes TLS records from OpenSSL straight to the socket of the library's Asio back end.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/stream.hpp>

namespace CorvidSocket {

// The type that the library passes to set_nativehandle_options for an https address.
using TlsStream = boost::asio::ssl::stream<boost::asio::ip::tcp::socket&>;

// Lets OpenSSL write to the socket directly, all records of a write together. Asio alone copies
// every record twice, through a pair of memory BIOs, and sends each in a separate operation. A
// second call for the same stream does nothing. If OpenSSL has no memory for it, Asio keeps
// sending.
void WriteToSocket(TlsStream& stream) noexcept;

}  // namespace CorvidSocket
