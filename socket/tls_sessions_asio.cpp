// Offers TLS 1.2 sessions, and stores the one of each completed handshake.
#include "socket/tls_sessions_asio.h"

#include <new>
#include <utility>

namespace CorvidSocket {

// A connection's reference to its sessions, for its lifetime.
struct TlsSessions::User {
  std::shared_ptr<TlsSessions> sessions;
  std::string server;

  static int Index() {
    static const int index = SSL_get_ex_new_index(
        0, nullptr, nullptr, nullptr,
        [](void* /*ssl*/, void* user, CRYPTO_EX_DATA* /*data*/, int /*index*/, long /*argument*/,
           void* /*pointer*/) { delete static_cast<User*>(user); });
    return index;
  }

  static User* Of(const SSL* ssl) { return static_cast<User*>(SSL_get_ex_data(ssl, Index())); }
};

void TlsSessions::Use(const std::shared_ptr<TlsSessions>& sessions, SSL* ssl,
                      const std::string& server) {
  if (User::Of(ssl) != nullptr) {
    return;  // It is already connected.
  }
  auto user = std::make_unique<User>(User{sessions, server});
  if (SSL_set_ex_data(ssl, User::Index(), user.get()) != 1) {
    throw std::bad_alloc();
  }
  static_cast<void>(user.release());

  if (const Session session = std::move(sessions->sessions_[server])) {
    SSL_set_session(ssl, session.get());
  }
  SSL_set_info_callback(ssl, [](const SSL* changed, int where, int /*result*/) {
    if ((where & SSL_CB_HANDSHAKE_DONE) != 0) {
      const User& done = *User::Of(changed);
      done.sessions->Keep(changed, done.server);
    }
  });
}

// Copied, because OpenSSL marks the connection's own session as not resumable if the connection
// ends without an alert, which RFC 5246, section 7.2.1, no longer requires.
void TlsSessions::Keep(const SSL* ssl, const std::string& server) noexcept {
  Session copy(SSL_SESSION_dup(SSL_get0_session(ssl)));
  sessions_.find(server)->second = std::move(copy);
}

}  // namespace CorvidSocket
