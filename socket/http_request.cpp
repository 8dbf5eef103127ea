// Builds requests from headers.
#include "socket/http_request.h"

#include <utility>

#include "platform/text.h"

namespace CorvidSocket {

HttpRequestBase::HttpRequestBase(web::http::method method, const HeaderSet& headers)
    : request(std::move(method)) {
  for (const auto& [name, value] : headers) {
    request.headers().add(platform::ToNative(name), platform::ToNative(value));
  }
}

HttpRequestBase::~HttpRequestBase() = default;

HttpPostRequest::HttpPostRequest(const HeaderSet& headers)
    : HttpRequestBase(web::http::methods::POST, headers) {}

HttpPostRequest::~HttpPostRequest() = default;

}  // namespace CorvidSocket
