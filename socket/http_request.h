// Requests of the HTTP layer.
#pragma once

#include <cpprest/http_msg.h>

#include <map>
#include <string>

#include "socket/bounded_body.h"

namespace CorvidSocket {

// Header names and values; sent in the order of the names.
using HeaderSet = std::map<std::wstring, std::wstring>;

// A request with a method and headers. The body is set on `request` (http_msg_base::set_body).
class HttpRequestBase {
 public:
  // An existing header gets ", " and the new value appended (http_headers::add). Throws
  // CorvidSocket::Exception for a value with a line end or NUL.
  HttpRequestBase(web::http::method method, const HeaderSet& headers);
  virtual ~HttpRequestBase();
  HttpRequestBase(const HttpRequestBase&) = delete;
  HttpRequestBase& operator=(const HttpRequestBase&) = delete;

  web::http::http_request request;

  // Receives the response body of the last attempt.
  BoundedBody answer_body;
};

class HttpPostRequest : public HttpRequestBase {
 public:
  explicit HttpPostRequest(const HeaderSet& headers);
  ~HttpPostRequest() override;

 private:
  std::wstring extra_;  // part of the class's layout; never filled or read
};

}  // namespace CorvidSocket
