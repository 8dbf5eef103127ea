// TLS 1.2 only, the client certificate, and errors when either is refused.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/certificate_posix.h"
#include "platform/error.h"
#include "socket/http_client.h"
#include "socket/socket_bio_asio.h"
#include "socket/tls_hooks.h"
#include "tests/unit/support/test_certificate_posix.h"
#include "tests/unit/support/tls_server_posix.h"

namespace {

using CorvidSocket::ErrorNumber;
using CorvidSocket::Exception;
using SslContext = boost::asio::ssl::context;

constexpr char kProtocolRefusal[] = "Can not set TLS 1.2 or TLS 1.3";
constexpr char kCertificateRefusal[] = "Failed to set WINHTTP_NO_CLIENT_CERT_CONTEXT";

// A key that is too small for OpenSSL's default security level.
kyd_test::UserWithCertificate WithWeakKey() {
  return kyd_test::UserWithCertificate(kyd_test::SelfSignedPem(EVP_RSA_gen(1024)));
}

class TlsHooksTest : public testing::Test {
 protected:
  // What the library does with each context before it connects.
  void Call(const void* certificate, SslContext& context) {
    web::http::client::http_client_config config;
    CorvidSocket::SetTlsOptions(config, certificate, {}, nullptr, native_request_);
    ASSERT_TRUE(config.get_ssl_context_callback());
    config.get_ssl_context_callback()(context);
  }

  void ExpectRefusal(const void* certificate, SslContext& context, const char* message) {
    try {
      Call(certificate, context);
      FAIL() << "no exception was thrown";
    } catch (const Exception& failure) {
      EXPECT_EQ(std::string(failure.what()), message);
      ASSERT_NE(boost::get_error_info<ErrorNumber>(failure), nullptr);
      EXPECT_EQ(*boost::get_error_info<ErrorNumber>(failure), platform::kErrorGeneralFailure);
    }
    EXPECT_EQ(native_request_, nullptr);
  }

  void* native_request_ = nullptr;
  SslContext context_{SslContext::sslv23};
};

TEST_F(TlsHooksTest, OffersOnlyTls12) {
  Call(nullptr, context_);
  EXPECT_EQ(SSL_CTX_get_min_proto_version(context_.native_handle()), TLS1_2_VERSION);
  EXPECT_EQ(SSL_CTX_get_max_proto_version(context_.native_handle()), TLS1_2_VERSION);
}

TEST_F(TlsHooksTest, SetsNoCertificateWithoutOne) {
  Call(nullptr, context_);
  EXPECT_EQ(SSL_CTX_get0_certificate(context_.native_handle()), nullptr);
  EXPECT_EQ(native_request_, nullptr);
}

TEST_F(TlsHooksTest, SetsTheCertificateWithItsKeyAndKeepsTheHandle) {
  const kyd_test::UserWithCertificate user(kyd_test::SelfSignedPem(EVP_EC_gen("P-256")));
  ASSERT_NE(user.Context(), nullptr);
  Call(user.Context(), context_);
  EXPECT_EQ(SSL_CTX_get_max_proto_version(context_.native_handle()), TLS1_2_VERSION);
  const platform::CertificateWithKey& wanted = platform::CertificateOf(user.Context());
  X509* const set = SSL_CTX_get0_certificate(context_.native_handle());
  ASSERT_NE(set, nullptr);
  EXPECT_EQ(X509_cmp(set, wanted.certificate.get()), 0);
  EXPECT_EQ(SSL_CTX_check_private_key(context_.native_handle()), 1);
  EXPECT_EQ(native_request_, context_.native_handle());
}

TEST_F(TlsHooksTest, ThrowsIfTheProtocolIsRefused) {
  const SslContext taken(std::move(context_));  // leaves a context without an object
  ExpectRefusal(nullptr, context_, kProtocolRefusal);
}

TEST_F(TlsHooksTest, ThrowsIfTheCertificateIsRefused) {
  const kyd_test::UserWithCertificate user = WithWeakKey();
  ASSERT_NE(user.Context(), nullptr);
  ExpectRefusal(user.Context(), context_, kCertificateRefusal);
}

TEST_F(TlsHooksTest, RefusalFailsTheRequestAndIsRetried) {
  const kyd_test::UserWithCertificate user = WithWeakKey();
  ASSERT_NE(user.Context(), nullptr);
  int attempts = 0;
  const CorvidSocket::Transport library = CorvidSocket::LibraryTransport();
  CorvidSocket::HttpClient client(
      user.Context(), /*has_certificate=*/true,
      [&](const web::uri& address, const web::http::client::http_client_config& config,
          const web::http::http_request& request) {
        ++attempts;
        return library(address, config, request);
      });
  CorvidSocket::HttpPostRequest request({});
  try {
    // Nothing listens there: the failure precedes the connection.
    static_cast<void>(client.SendRequest(web::uri("https://localhost:1/"), request, L"", L"", 1));
    FAIL() << "no exception was thrown";
  } catch (const Exception& failure) {
    EXPECT_EQ(std::string(failure.what()), kCertificateRefusal);
    ASSERT_NE(boost::get_error_info<ErrorNumber>(failure), nullptr);
    EXPECT_EQ(*boost::get_error_info<ErrorNumber>(failure), platform::kErrorGeneralFailure);
  }
  EXPECT_EQ(attempts, 2);
}

class ConnectionCacheTest : public testing::Test {
 protected:
  // Returns the context of a client's connections.
  SSL_CTX* Context(const CorvidSocket::ConnectionCache& cache, bool validate,
                   const void* certificate = nullptr) {
    web::http::client::http_client_config config;
    config.set_validate_certificates(validate);
    CorvidSocket::SetTlsOptions(config, certificate, web::uri("https://localhost:1/"), cache,
                                native_request_);
    contexts_.push_back(config.get_ssl_context());
    return contexts_.back()->native_handle();
  }

  void* native_request_ = nullptr;
  std::vector<std::shared_ptr<SslContext>>
      contexts_;  // keeps them alive, so that no address is reused
};

TEST_F(ConnectionCacheTest, HasOneContextWithAndOneWithoutValidation) {
  const auto cache = CorvidSocket::MakeConnectionCache();
  SSL_CTX* const validating = Context(cache, true);
  SSL_CTX* const trusting = Context(cache, false);
  EXPECT_NE(validating, trusting);
  EXPECT_EQ(Context(cache, true), validating);
  EXPECT_EQ(Context(cache, false), trusting);
  EXPECT_EQ(SSL_CTX_get_max_proto_version(validating), TLS1_2_VERSION);
  EXPECT_EQ(SSL_CTX_get_max_proto_version(trusting), TLS1_2_VERSION);
}

TEST_F(ConnectionCacheTest, SharesOnlyTheAuthoritiesWithAnother) {
  SSL_CTX* const one = Context(CorvidSocket::MakeConnectionCache(), true);
  SSL_CTX* const other = Context(CorvidSocket::MakeConnectionCache(), true);
  EXPECT_NE(one, other);
  EXPECT_EQ(SSL_CTX_get_cert_store(one), SSL_CTX_get_cert_store(other));
}

TEST_F(ConnectionCacheTest, LoadsNoAuthoritiesWithoutValidation) {
  SSL_CTX* const validating = Context(CorvidSocket::MakeConnectionCache(), true);
  SSL_CTX* const trusting = Context(CorvidSocket::MakeConnectionCache(), false);
  EXPECT_NE(SSL_CTX_get_cert_store(trusting), SSL_CTX_get_cert_store(validating));
}

TEST_F(ConnectionCacheTest, ResumesSessionsOnlyAmongConnectionsThatValidateAlike) {
  SslContext server = kyd_test::TlsServer();
  const auto cache = CorvidSocket::MakeConnectionCache();
  const auto resumes = [&](bool validate, const char* address) {
    web::http::client::http_client_config config;
    config.set_validate_certificates(validate);
    CorvidSocket::SetTlsOptions(config, nullptr, web::uri(address), cache, native_request_);
    boost::asio::io_context service;
    boost::asio::ip::tcp::socket socket(service);
    CorvidSocket::TlsStream stream(socket, *config.get_ssl_context());
    config.invoke_nativehandle_options(&stream);
    return kyd_test::Resumes(stream.native_handle(), server.native_handle());
  };
  EXPECT_FALSE(resumes(false, "https://localhost:1/"));
  EXPECT_FALSE(resumes(true, "https://localhost:1/"));
  EXPECT_TRUE(resumes(false, "https://localhost:1/path"));
  EXPECT_TRUE(resumes(true, "https://localhost:1/path"));
  EXPECT_FALSE(resumes(false, "https://localhost:2/"));
  EXPECT_FALSE(resumes(false, "https://other:1/"));
}

TEST_F(ConnectionCacheTest, PresentsTheCertificate) {
  const kyd_test::UserWithCertificate user(kyd_test::SelfSignedPem(EVP_EC_gen("P-256")));
  const auto cache = CorvidSocket::MakeConnectionCache();
  SSL_CTX* const context = Context(cache, true, user.Context());
  EXPECT_EQ(X509_cmp(SSL_CTX_get0_certificate(context),
                     platform::CertificateOf(user.Context()).certificate.get()),
            0);
  EXPECT_EQ(native_request_, context);
}

TEST_F(ConnectionCacheTest, ThrowsForEachRequestIfTheCertificateIsRefused) {
  const kyd_test::UserWithCertificate user = WithWeakKey();
  const auto cache = CorvidSocket::MakeConnectionCache();
  for (int request = 0; request < 2; ++request) {
    EXPECT_THROW(Context(cache, true, user.Context()), Exception);
  }
}

}  // namespace
