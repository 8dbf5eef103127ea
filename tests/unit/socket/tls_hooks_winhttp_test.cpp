// TLS 1.2 only, the client certificate, and errors when either is refused.
#include <gtest/gtest.h>
#include <windows.h>
// Requires windows.h.
#include <winhttp.h>

#include <string>

#include "platform/certificate_store.h"
#include "platform/unique_handle.h"
#include "socket/http_client.h"
#include "socket/tls_hooks.h"
#include "tests/unit/support/test_certificate_win32.h"

namespace {

using CorvidSocket::ErrorNumber;
using CorvidSocket::Exception;
using web::http::client::http_client_config;

constexpr char kProtocolRefusal[] = "Can not set TLS 1.2 or TLS 1.3";
constexpr char kCertificateRefusal[] = "Failed to set WINHTTP_NO_CLIENT_CERT_CONTEXT";

struct InternetCloser {
  using Value = HINTERNET;
  static constexpr Value kInvalid = nullptr;
  static void Close(Value handle) noexcept { WinHttpCloseHandle(handle); }
};
using Internet = platform::UniqueHandle<InternetCloser>;

class TlsHooksTest : public testing::Test {
 protected:
  [[nodiscard]] http_client_config Config(const void* certificate) {
    http_client_config config;
    CorvidSocket::SetTlsOptions(config, certificate, {}, nullptr, native_request_);
    return config;
  }

  // A request handle without a host; nothing is sent.
  [[nodiscard]] Internet OpenRequest(DWORD flags) {
    session_ = Internet(WinHttpOpen(nullptr, WINHTTP_ACCESS_TYPE_NO_PROXY, nullptr, nullptr, 0));
    connection_ = Internet(WinHttpConnect(session_.Get(), L"localhost", 1, 0));
    return Internet(
        WinHttpOpenRequest(connection_.Get(), L"POST", L"/", nullptr, nullptr, nullptr, flags));
  }

  template <class Call>
  void ExpectRefusal(const Call& call, const char* message, unsigned error) {
    try {
      call();
      FAIL() << "no exception was thrown";
    } catch (const Exception& failure) {
      EXPECT_EQ(std::string(failure.what()), message);
      ASSERT_NE(boost::get_error_info<ErrorNumber>(failure), nullptr);
      EXPECT_EQ(*boost::get_error_info<ErrorNumber>(failure), error);
    }
    EXPECT_EQ(native_request_, nullptr);
  }

  void* native_request_ = nullptr;
  Internet session_;
  Internet connection_;
  platform::CertificateContext certificate_ = kyd_test::MakeCertificate();
};

TEST_F(TlsHooksTest, AcceptsASession) {
  const Internet session(WinHttpOpen(nullptr, WINHTTP_ACCESS_TYPE_NO_PROXY, nullptr, nullptr, 0));
  ASSERT_TRUE(session.IsValid());
  EXPECT_NO_THROW(Config(nullptr)._invoke_nativesessionhandle_options(session.Get()));
  EXPECT_NO_THROW(Config(certificate_.Get())._invoke_nativesessionhandle_options(session.Get()));
}

TEST_F(TlsHooksTest, SetsNoCertificateWithoutOne) {
  // This handle refuses every option.
  EXPECT_NO_THROW(Config(nullptr).invoke_nativehandle_options(nullptr));
  EXPECT_EQ(native_request_, nullptr);
}

TEST_F(TlsHooksTest, SetsTheCertificateAndKeepsTheHandle) {
  ASSERT_TRUE(certificate_.IsValid());
  const Internet request = OpenRequest(WINHTTP_FLAG_SECURE);
  ASSERT_TRUE(request.IsValid());
  Config(certificate_.Get()).invoke_nativehandle_options(request.Get());
  EXPECT_EQ(native_request_, request.Get());
}

TEST_F(TlsHooksTest, ThrowsIfTheProtocolIsRefused) {
  ExpectRefusal([&] { Config(nullptr)._invoke_nativesessionhandle_options(nullptr); },
                kProtocolRefusal, ERROR_INVALID_HANDLE);
}

TEST_F(TlsHooksTest, ThrowsIfTheCertificateIsRefused) {
  ASSERT_TRUE(certificate_.IsValid());
  ExpectRefusal([&] { Config(certificate_.Get()).invoke_nativehandle_options(nullptr); },
                kCertificateRefusal, ERROR_INVALID_HANDLE);
  const Internet request = OpenRequest(/*flags=*/0);
  ASSERT_TRUE(request.IsValid());
  ExpectRefusal([&] { Config(certificate_.Get()).invoke_nativehandle_options(request.Get()); },
                kCertificateRefusal, ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
}

TEST_F(TlsHooksTest, RefusalFailsTheRequestAndIsRetried) {
  ASSERT_TRUE(certificate_.IsValid());
  int attempts = 0;
  const CorvidSocket::Transport library = CorvidSocket::LibraryTransport();
  CorvidSocket::HttpClient client(certificate_.Get(), /*has_certificate=*/true,
                                  [&](const web::uri& address, const http_client_config& config,
                                      const web::http::http_request& request) {
                                    ++attempts;
                                    return library(address, config, request);
                                  });
  CorvidSocket::HttpPostRequest request({});
  // A request without TLS accepts no certificate; the failure precedes the connection.
  ExpectRefusal(
      [&] {
        static_cast<void>(
            client.SendRequest(web::uri(L"http://localhost:1/"), request, L"", L"", 1));
      },
      kCertificateRefusal, ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
  EXPECT_EQ(attempts, 2);
}

}  // namespace
