// The sending with its retries, over the REST library's client.
#include "socket/http_client.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "platform/text.h"
#include "socket/tls_hooks.h"

namespace CorvidSocket {

using web::http::http_request;
using web::http::http_response;
using web::http::client::http_client;
using web::http::client::http_client_config;

Transport LibraryTransport() {
  return
      [](const web::uri& address, const http_client_config& config, const http_request& request) {
        auto client = std::make_shared<http_client>(address, config);
        // The continuation keeps the client alive until the answer is there.
        return client->request(request).then([client](http_response answer) { return answer; });
      };
}

HttpClient::HttpClient(CertificateContext certificate, bool has_certificate, Transport transport,
                       ConnectionCache connections)
    : certificate_(certificate),
      has_certificate_(has_certificate),
      transport_(std::move(transport)),
      connections_(std::move(connections)) {}

HttpClient::~HttpClient() = default;

http_response HttpClient::SendRequest(const web::uri& base, HttpRequestBase& request,
                                      const std::wstring& path, const std::wstring& query,
                                      int retryCount) {
  std::optional<Exception> failure;  // of the latest attempt
  for (std::int64_t attempt = 0; attempt <= retryCount; ++attempt) {
    try {
      return Attempt(base, request, path, query);
    } catch (const Exception& failed) {
      failure.emplace(failed);
    } catch (const boost::exception& failed) {
      failure.emplace(failed);
    } catch (const web::http::http_exception& failed) {
      // The library's error code is dropped, its text says what happened.
      failure.emplace(std::string(failed.what()));
    }
  }
  if (failure) {
    throw Exception(*failure);
  }
  throw Exception("http request failure.");
}

http_response HttpClient::Attempt(const web::uri& base, HttpRequestBase& request,
                                  const std::wstring& path, const std::wstring& query) {
  return pplx::create_task([&]() {
           web::uri_builder address(base);
           if (!path.empty()) {
             address.append_path(platform::ToNative(path), /*is_encode=*/false);
           }
           if (!query.empty()) {
             address.append(web::uri(platform::ToNative(query)));
           }
           request.answer_body = BoundedBody();
           request.request.set_response_stream(request.answer_body.Stream());
           return transport_(address.to_uri(), get_http_config(), request.request);
         })
      .get();
}

http_client_config HttpClient::get_http_config() {
  http_client_config config;
  config.set_validate_certificates(has_certificate_);
  // A redirect is an answer like any other: following it would turn the POST into a GET without a
  // body and take the API key to another host.
  config.set_max_redirects(0);
  SetTlsOptions(config, certificate_, connections_, native_request_);
  return config;
}

std::wstring ReadAnswerText(http_response answer, const HttpRequestBase& request) {
  try {
    answer.content_ready().wait();
  } catch (const BodyCutOff&) {
    // More than one line of the log can show is there already. The library would raise the cut once
    // more instead of giving the text.
    return platform::FromUtf8(request.answer_body.Kept());
  }
  // The library refuses text that is not valid UTF-8, and answers may hold anything.
  answer.set_body(platform::ToUtf8(platform::FromUtf8(request.answer_body.Kept())));
  return platform::FromNative(answer.extract_string(/*ignore_content_type=*/true).get());
}

void FinishAnswer(const http_response& answer) noexcept {
  try {
    answer.content_ready().wait();
  } catch (...) {
    // The answer has been judged by its status; what became of its body changes nothing.
  }
}

}  // namespace CorvidSocket
