// The TLS sessions of the library's Asio back end, to be resumed by later connections.
#pragma once

#include <openssl/ssl.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace CorvidSocket {

// Sessions by server. All connections that share them validate their servers alike and present the
// same client certificate: a session stands for what its handshake has checked.
class TlsSessions {
 public:
  // To be called before the handshake of each connection. Offers the server's session, and keeps
  // the one that the handshake produces. Each session is offered once, so that none is left after a
  // failed handshake or during another one.
  static void Use(const std::shared_ptr<TlsSessions>& sessions, SSL* ssl,
                  const std::string& server);

 private:
  struct Free {
    void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
  };
  using Session = std::unique_ptr<SSL_SESSION, Free>;

  struct User;

  void Keep(const SSL* ssl, const std::string& server) noexcept;

  std::mutex mutex_;
  std::map<std::string, Session> sessions_;
};

}  // namespace CorvidSocket
