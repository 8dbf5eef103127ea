// Sends a request to one address and waits for the response.
#pragma once

#include <cpprest/http_client.h>

#include <functional>
#include <string>
#include <utility>

#include "socket/exception.h"
#include "socket/http_request.h"
#include "socket/tls_hooks.h"

namespace CorvidSocket {

// Sends a request once. The default uses the library's client; tests substitute their own. Not an
// alias, so that other headers can declare it without the library's.
struct Transport : std::function<pplx::task<web::http::http_response>(
                       const web::uri&, const web::http::client::http_client_config&,
                       const web::http::http_request&)> {
  using function::function;
};

[[nodiscard]] Transport LibraryTransport();

class HttpClient {
 public:
  // PCCERT_CONTEXT on Windows; see platform/certificate_store.h.
  using CertificateContext = const void*;

  // The context is borrowed for the client's lifetime and may be null. The flag also enables the
  // validation of the server's certificate: a client without a certificate of its own does not
  // validate the server's. This coupling is intentional. The cache is shared by clients with the
  // same certificate. No I/O happens here.
  HttpClient(CertificateContext certificate, bool has_certificate,
             Transport transport = LibraryTransport(), ConnectionCache connections = nullptr);
  virtual ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // Sends the request to `base` with `path` (not encoded again) and `query` appended, at most
  // `retryCount` + 1 times without a pause, until there is a response. Returns the response,
  // whatever its status. Throws CorvidSocket::Exception for every failure of the HTTP layer; a
  // cancelled task (task_canceled) and any other exception pass through. Each attempt sends the
  // body from its position at the call. A body that cannot be rewound is sent once, and the failure
  // of that attempt is thrown.
  [[nodiscard]] web::http::http_response SendRequest(const web::uri& base, HttpRequestBase& request,
                                                     const std::wstring& path,
                                                     const std::wstring& query, int retryCount);

 private:
  [[nodiscard]] web::http::client::http_client_config get_http_config(const web::uri& base);

  struct Outcome;
  [[nodiscard]] Outcome Attempt(const web::uri& base, HttpRequestBase& request,
                                const std::wstring& path, const std::wstring& query);

  void* native_request_ = nullptr;  // HINTERNET of the last attempt; nothing reads it
  CertificateContext certificate_;  // borrowed
  bool has_certificate_;
  Transport transport_;
  ConnectionCache connections_;
};

// Returns the body of a response as text, whatever its content type; at most kKeptBodyBytes of it.
// Waits for its end. Throws what the library throws if the body cannot be read to its end.
[[nodiscard]] std::wstring ReadAnswerText(web::http::http_response answer,
                                          const HttpRequestBase& request);

// The destructor waits until the response body has ended, successfully or not: nothing uses the
// bodies of request and response any more.
class AnswerGuard {
 public:
  explicit AnswerGuard(web::http::http_response answer) : answer_(std::move(answer)) {}
  ~AnswerGuard();
  AnswerGuard(const AnswerGuard&) = delete;
  AnswerGuard& operator=(const AnswerGuard&) = delete;

 private:
  web::http::http_response answer_;
};

}  // namespace CorvidSocket
