// A BIO that writes to the socket, and passes data that the socket does not accept to Asio's BIO
// pair.
#include "socket/socket_bio_asio.h"

#include <openssl/bio.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/system/error_code.hpp>
#include <cstddef>
#include <memory>
#include <new>

namespace CorvidSocket {

namespace {

using Socket = boost::asio::ip::tcp::socket;

// While the pair holds data, Asio waits for the socket and reports its errors.
class SocketBio {
 public:
  SocketBio(Socket& socket, BIO* pair) : socket_(socket), pair_(pair) { BIO_up_ref(pair); }
  ~SocketBio() { BIO_free(pair_); }
  SocketBio(const SocketBio&) = delete;
  SocketBio& operator=(const SocketBio&) = delete;

  static SocketBio& Of(BIO* bio) { return *static_cast<SocketBio*>(BIO_get_data(bio)); }

  int Write(BIO* bio, const char* data, int size) {
    BIO_clear_retry_flags(bio);
    // Data in the pair must be sent first.
    const int sent = BIO_wpending(pair_) == 0 ? Send(data, size) : 0;
    if (sent == size) {
      return sent;
    }
    const int kept = BIO_write(pair_, data + sent, size - sent);
    if (kept > 0 || sent > 0) {
      return sent + std::max(kept, 0);
    }
    BIO_set_flags(bio, BIO_get_retry_flags(pair_));
    return kept;
  }

  long Control(int command, long number, void* pointer) {
    return BIO_ctrl(pair_, command, number, pointer);
  }

 private:
  // Sends what the socket accepts without blocking.
  int Send(const char* data, int size) {
    boost::system::error_code error;
    if (!socket_.non_blocking()) {
      socket_.non_blocking(true, error);
    }
    if (error) {
      return 0;
    }
    const auto bytes = boost::asio::buffer(data, static_cast<std::size_t>(size));
    return static_cast<int>(socket_.write_some(bytes, error));
  }

  Socket& socket_;
  BIO* const pair_;
};

// Never freed: a connection may outlive every destructor that could free it.
BIO_METHOD* Method() {
  static BIO_METHOD* const method = [] {
    BIO_METHOD* const made =
        BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket of a connection");
    if (made != nullptr) {
      BIO_meth_set_write(made, [](BIO* bio, const char* data, int size) {
        return SocketBio::Of(bio).Write(bio, data, size);
      });
      BIO_meth_set_ctrl(made, [](BIO* bio, int command, long number, void* pointer) {
        return SocketBio::Of(bio).Control(command, number, pointer);
      });
      BIO_meth_set_destroy(made, [](BIO* bio) {
        delete static_cast<SocketBio*>(BIO_get_data(bio));
        return 1;
      });
    }
    return made;
  }();
  return method;
}

}  // namespace

void WriteToSocket(TlsStream& stream) noexcept {
  SSL* const ssl = stream.native_handle();
  BIO* const pair = SSL_get_wbio(ssl);
  BIO_METHOD* const method = Method();
  if (method == nullptr || pair == nullptr || BIO_method_type(pair) != BIO_TYPE_BIO) {
    return;
  }
  std::unique_ptr<SocketBio> owner(new (std::nothrow) SocketBio(stream.next_layer(), pair));
  BIO* const bio = owner ? BIO_new(method) : nullptr;
  if (bio == nullptr) {
    return;
  }
  BIO_set_data(bio, owner.release());
  BIO_set_init(bio, 1);
  SSL_set0_wbio(ssl, bio);
  // A write sends all records of its data; the buffers are kept for the next one.
  SSL_clear_mode(ssl, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_RELEASE_BUFFERS);
}

}  // namespace CorvidSocket
