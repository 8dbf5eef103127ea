// TLS 1.2 alone, the client certificate, and what a refusal of either becomes.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <boost/asio/ssl/context.hpp>
#include <string>
#include <utility>

#include "platform/certificate_posix.h"
#include "platform/error.h"
#include "socket/http_client.h"
#include "socket/tls_hooks.h"
#include "tests/unit/support/test_certificate_posix.h"

namespace {

using CorvidSocket::ErrorNumber;
using CorvidSocket::Exception;
using SslContext = boost::asio::ssl::context;

constexpr char kProtocolRefusal[] = "Can not set TLS 1.2 or TLS 1.3";
constexpr char kCertificateRefusal[] = "Failed to set WINHTTP_NO_CLIENT_CERT_CONTEXT";

// A key that OpenSSL's default security level refuses as too small.
kyd_test::UserWithCertificate WithWeakKey() {
  return kyd_test::UserWithCertificate(kyd_test::SelfSignedPem(EVP_RSA_gen(1024)));
}

class TlsHooksTest : public testing::Test {
 protected:
  // What the library does with each context before it connects.
  void Call(const void* certificate, SslContext& context) {
    web::http::client::http_client_config config;
    CorvidSocket::SetTlsOptions(config, certificate, nullptr, native_request_);
    ASSERT_TRUE(config.get_ssl_context_callback());
    config.get_ssl_context_callback()(context);
  }

  void ExpectRefusal(const void* certificate, SslContext& context, const char* message) {
    try {
      Call(certificate, context);
      FAIL() << "nothing was raised";
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

TEST_F(TlsHooksTest, OfferTls12Alone) {
  Call(nullptr, context_);
  EXPECT_EQ(SSL_CTX_get_min_proto_version(context_.native_handle()), TLS1_2_VERSION);
  EXPECT_EQ(SSL_CTX_get_max_proto_version(context_.native_handle()), TLS1_2_VERSION);
}

TEST_F(TlsHooksTest, SetNoCertificateWithoutOne) {
  Call(nullptr, context_);
  EXPECT_EQ(SSL_CTX_get0_certificate(context_.native_handle()), nullptr);
  EXPECT_EQ(native_request_, nullptr);
}

TEST_F(TlsHooksTest, SetTheCertificateWithItsKeyAndKeepTheHandle) {
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

TEST_F(TlsHooksTest, RaiseWhenTheProtocolIsRefused) {
  const SslContext taken(std::move(context_));  // leaves nothing to set it on
  ExpectRefusal(nullptr, context_, kProtocolRefusal);
}

TEST_F(TlsHooksTest, RaiseWhenTheCertificateIsRefused) {
  const kyd_test::UserWithCertificate user = WithWeakKey();
  ASSERT_NE(user.Context(), nullptr);
  ExpectRefusal(user.Context(), context_, kCertificateRefusal);
}

TEST_F(TlsHooksTest, RefusalComesOutOfTheSendingAndIsTriedAgain) {
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
    // Nobody listens there; the refusal comes before the connecting.
    static_cast<void>(client.SendRequest(web::uri("https://localhost:1/"), request, L"", L"", 1));
    FAIL() << "nothing was raised";
  } catch (const Exception& failure) {
    EXPECT_EQ(std::string(failure.what()), kCertificateRefusal);
    ASSERT_NE(boost::get_error_info<ErrorNumber>(failure), nullptr);
    EXPECT_EQ(*boost::get_error_info<ErrorNumber>(failure), platform::kErrorGeneralFailure);
  }
  EXPECT_EQ(attempts, 2);
}

}  // namespace
