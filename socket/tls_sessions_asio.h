// The TLS sessions of the library's Asio back end, for resumption by later connections.
#pragma once

#include <openssl/ssl.h>

#include <map>
#include <memory>
#include <string>

namespace CorvidSocket {

// Sessions by server. All connections that share them validate their servers in the same way and
// present the same client certificate, because resuming a session skips these checks.
class TlsSessions {
 public:
  // Call before the handshake of each connection. Offers the server's session, and stores the one
  // that the handshake creates. Each session is offered once, so that none remains after a failed
  // handshake or during another one.
  static void Use(const std::shared_ptr<TlsSessions>& sessions, SSL* ssl,
                  const std::string& server);

 private:
  struct Free {
    void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
  };
  using Session = std::unique_ptr<SSL_SESSION, Free>;

  struct User;

  void Keep(const SSL* ssl, const std::string& server) noexcept;

  std::map<std::string, Session> sessions_;
};

}  // namespace CorvidSocket
