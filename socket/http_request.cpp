// Builds requests from headers.
#include "socket/http_request.h"

#include <string>
#include <utility>

#include "platform/text.h"
#include "socket/exception.h"

namespace CorvidSocket {

namespace {

// The library would send the value unchanged, and the server would interpret the text after a line
// end as another header or the body. The value may be a secret, so the message does not quote it.
void Validate(const std::wstring& name, const std::wstring& value) {
  if (value.find_first_of(std::wstring(L"\r\n\0", 3)) != std::wstring::npos) {
    throw Exception("The value of the request header " + platform::ToUtf8(name) + " is invalid.");
  }
}

}  // namespace

HttpRequestBase::HttpRequestBase(web::http::method method, const HeaderSet& headers)
    : request(std::move(method)) {
  for (const auto& [name, value] : headers) {
    Validate(name, value);
    request.headers().add(platform::ToNative(name), platform::ToNative(value));
  }
}

HttpRequestBase::~HttpRequestBase() = default;

HttpPostRequest::HttpPostRequest(const HeaderSet& headers)
    : HttpRequestBase(web::http::methods::POST, headers) {}

HttpPostRequest::~HttpPostRequest() = default;

}  // namespace CorvidSocket
