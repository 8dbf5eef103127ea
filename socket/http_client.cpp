// Sends a request, with retries, through the REST library's client.
#include "socket/http_client.h"

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "platform/text.h"
#include "socket/library_threads.h"

namespace CorvidSocket {

using web::http::http_request;
using web::http::http_response;
using web::http::client::http_client;
using web::http::client::http_client_config;

namespace {

// Remembers the position of a body, to send it again from there.
class BodyStart {
 public:
  explicit BodyStart(const concurrency::streams::istream& body) : body_(body) {
    if (CanSeek()) {
      start_ = body_.tell();
    }
  }

  // Returns false if that is not possible; true without a body.
  [[nodiscard]] bool Rewind() const {
    try {
      return !body_.is_valid() ||
             (CanSeek() && start_ != Position(-1) && body_.seek(start_) == start_);
    } catch (const std::exception&) {
      return false;  // A read of the failed attempt ended in an error.
    }
  }

 private:
  using Position = concurrency::streams::istream::pos_type;

  // A failed read closes the stream.
  [[nodiscard]] bool CanSeek() const { return body_.is_open() && body_.can_seek(); }

  concurrency::streams::istream body_;
  Position start_{-1};
};

}  // namespace

// The outcome of an attempt: the response, unless there is a failure.
struct HttpClient::Outcome {
  http_response answer;
  std::shared_ptr<const Exception> failure;
};

Transport LibraryTransport() {
  return
      [](const web::uri& address, const http_client_config& config, const http_request& request) {
        auto client = std::make_shared<http_client>(address, config);
        // The continuation keeps the client alive until the response arrives.
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
  const BodyStart body(request.request.body());
  std::shared_ptr<const Exception> failure;  // of the last attempt
  for (std::int64_t attempt = 0; attempt <= retryCount; ++attempt) {
    if (attempt > 0 && !body.Rewind()) {
      break;
    }
    Outcome outcome = Attempt(base, request, path, query);
    if (!outcome.failure) {
      return outcome.answer;
    }
    failure = std::move(outcome.failure);
  }
  if (failure) {
    throw Exception(*failure);
  }
  throw Exception("http request failure.");
}

HttpClient::Outcome HttpClient::Attempt(const web::uri& base, HttpRequestBase& request,
                                        const std::wstring& path, const std::wstring& query) {
  const auto send = [&]() {
    web::uri_builder address(base);
    if (!path.empty()) {
      address.append_path(platform::ToNative(path), /*is_encode=*/false);
    }
    if (!query.empty()) {
      address.append(web::uri(platform::ToNative(query)));
    }
    request.answer_body = BoundedBody();
    request.request.set_response_stream(request.answer_body.Stream());
    return transport_(address.to_uri(), get_http_config(base), request.request);
  };
  const auto keep = [](const pplx::task<http_response>& answered) {
    // Keeps a copy: the library may hold the original for longer, on Windows in its threads.
    Outcome outcome;
    try {
      outcome.answer = answered.get();
    } catch (const Exception& failed) {
      outcome.failure = std::make_shared<const Exception>(failed);
    } catch (const boost::exception& failed) {
      outcome.failure = std::make_shared<const Exception>(failed);
    } catch (const web::http::http_exception& failed) {
      // The library's error code is dropped; its text describes the failure.
      outcome.failure = std::make_shared<const Exception>(std::string(failed.what()));
    }
    return outcome;
  };
  return Await(pplx::create_task(send).then(keep));
}

http_client_config HttpClient::get_http_config(const web::uri& base) {
  http_client_config config;
  config.set_validate_certificates(has_certificate_);
  // A redirect is treated like any other response: following it would turn the POST into a GET
  // without a body and send the API key to another host.
  config.set_max_redirects(0);
  SetTlsOptions(config, certificate_, base, connections_, native_request_);
  return config;
}

std::wstring ReadAnswerText(http_response answer, const HttpRequestBase& request) {
  try {
    Await(answer.content_ready());
  } catch (const BodyCutOff&) {
    // The kept part is already more than a log line can show. The library would throw again instead
    // of returning the text.
    return platform::FromUtf8(request.answer_body.Kept());
  }
  // The library rejects text that is not valid UTF-8, and responses may contain anything.
  answer.set_body(platform::ToUtf8(platform::FromUtf8(request.answer_body.Kept())));
  return platform::FromNative(answer.extract_string(/*ignore_content_type=*/true).get());
}

AnswerGuard::~AnswerGuard() {
  try {
    Await(answer_.content_ready());
  } catch (...) {
    // The response was judged by its status; its body no longer matters.
  }
}

}  // namespace CorvidSocket
