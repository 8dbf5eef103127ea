// Which connections resume which sessions, with both ends in memory.
#include "socket/tls_sessions_asio.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/unit/support/tls_server_posix.h"

namespace {

using CorvidSocket::TlsSessions;
using SslContext = boost::asio::ssl::context;

using kyd_test::Ssl;

class TlsSessionsTest : public testing::Test {
 protected:
  Ssl Client(const std::string& server) {
    Ssl result(SSL_new(client_.native_handle()));
    TlsSessions::Use(sessions_, result.get(), server);
    return result;
  }

  // Returns whether the handshake resumed a session. The connection ends without an alert, as those
  // of the library do.
  bool Resumes(const std::string& server) {
    const Ssl client = Client(server);
    return Connect(client.get());
  }

  bool Connect(SSL* client) { return kyd_test::Resumes(client, server_.native_handle()); }

  const std::shared_ptr<TlsSessions> sessions_ = std::make_shared<TlsSessions>();
  SslContext client_{SslContext::tlsv12_client};
  SslContext server_ = kyd_test::TlsServer();
};

TEST_F(TlsSessionsTest, ResumesASessionOnEveryLaterConnection) {
  EXPECT_FALSE(Resumes("one:443"));
  EXPECT_TRUE(Resumes("one:443"));
  EXPECT_TRUE(Resumes("one:443"));
}

TEST_F(TlsSessionsTest, ResumesASessionWithoutTickets) {
  server_.set_options(SSL_OP_NO_TICKET);
  EXPECT_FALSE(Resumes("one:443"));
  EXPECT_TRUE(Resumes("one:443"));
}

TEST_F(TlsSessionsTest, OffersASessionOnlyToItsOwnServer) {
  EXPECT_FALSE(Resumes("one:443"));
  EXPECT_FALSE(Resumes("other:443"));
  EXPECT_FALSE(Resumes("one:444"));
  EXPECT_TRUE(Resumes("one:443"));
}

TEST_F(TlsSessionsTest, OffersNoSessionOfAnotherObject) {
  EXPECT_FALSE(Resumes("one:443"));
  const auto others = std::make_shared<TlsSessions>();
  const Ssl client(SSL_new(client_.native_handle()));
  TlsSessions::Use(others, client.get(), "one:443");
  EXPECT_FALSE(Connect(client.get()));
}

TEST_F(TlsSessionsTest, DoesNotOfferASessionAgainAfterAFailedHandshake) {
  EXPECT_FALSE(Resumes("one:443"));
  EXPECT_NE(SSL_get0_session(Client("one:443").get()), nullptr);
  EXPECT_FALSE(Resumes("one:443"));
  EXPECT_TRUE(Resumes("one:443"));
}

TEST_F(TlsSessionsTest, ReplacesASessionThatTheServerHasForgotten) {
  EXPECT_FALSE(Resumes("one:443"));
  server_ = kyd_test::TlsServer();
  EXPECT_FALSE(Resumes("one:443"));
  EXPECT_TRUE(Resumes("one:443"));
}

TEST_F(TlsSessionsTest, DoesNotChangeAReusedConnection) {
  EXPECT_FALSE(Resumes("one:443"));
  const Ssl client = Client("one:443");
  EXPECT_TRUE(Connect(client.get()));
  const SSL_SESSION* const session = SSL_get0_session(client.get());
  TlsSessions::Use(sessions_, client.get(), "one:443");
  EXPECT_EQ(SSL_get0_session(client.get()), session);
  EXPECT_TRUE(Resumes("one:443"));
}

TEST_F(TlsSessionsTest, OutlivesItsOwner) {
  auto sessions = std::make_shared<TlsSessions>();
  const Ssl client(SSL_new(client_.native_handle()));
  TlsSessions::Use(sessions, client.get(), "one:443");
  sessions.reset();
  EXPECT_FALSE(Connect(client.get()));
}

}  // namespace
