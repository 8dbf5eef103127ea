// A TLS 1.2 server with a certificate created for the test.
#pragma once

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/ssl/context.hpp>
#include <memory>
#include <string>

#include "tests/unit/support/test_certificate_posix.h"

namespace kyd_test {

[[nodiscard]] inline boost::asio::ssl::context TlsServer() {
  boost::asio::ssl::context result(boost::asio::ssl::context::tlsv12_server);
  const std::string pem = SelfSignedPem(EVP_EC_gen("P-256"));
  const auto bytes = boost::asio::buffer(pem);
  result.use_certificate_chain(bytes);
  result.use_private_key(bytes, boost::asio::ssl::context::pem);
  return result;
}

struct FreeSsl {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};
using Ssl = std::unique_ptr<SSL, FreeSsl>;

// Performs a handshake in memory, which must succeed. Returns whether it resumed a session.
[[nodiscard]] inline bool Resumes(SSL* client, SSL_CTX* server_settings) {
  const Ssl server(SSL_new(server_settings));
  SSL_set_connect_state(client);
  SSL_set_accept_state(server.get());
  BIO* near_end = nullptr;
  BIO* far_end = nullptr;
  EXPECT_EQ(BIO_new_bio_pair(&near_end, 0, &far_end, 0), 1);
  SSL_set_bio(client, near_end, near_end);
  SSL_set_bio(server.get(), far_end, far_end);
  for (int turn = 0; turn < 10 && SSL_in_init(client) != 0; ++turn) {
    SSL_do_handshake(client);
    SSL_do_handshake(server.get());
  }
  EXPECT_EQ(SSL_in_init(client), 0);
  SSL_set_shutdown(server.get(), SSL_SENT_SHUTDOWN);  // so that the session stays valid
  return SSL_session_reused(client) == 1;
}

}  // namespace kyd_test
