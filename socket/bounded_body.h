// A response body of which only the start is kept.
#pragma once

#include <cpprest/streams.h>

#include <chrono>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <string>

namespace CorvidSocket {

// Number of body bytes that are kept: more than the longest line of the diagnostic log can show.
inline constexpr std::size_t kKeptBodyBytes = 4096;

// The maximum duration of a body. The library's time-out covers only silence, so an endless body
// would block the run forever.
inline constexpr std::chrono::seconds kLongestBody{30};

// Stops receiving a body that takes longer than kLongestBody.
class BodyCutOff : public std::exception {
 public:
  [[nodiscard]] const char* what() const noexcept override { return "response body cut off"; }
};

// Receives a response body from the library: keeps the first kKeptBodyBytes and drops the rest.
// Memory use does not depend on the length.
class BoundedBody {
 public:
  using Now = std::function<std::chrono::steady_clock::time_point()>;

  explicit BoundedBody(Now now = &std::chrono::steady_clock::now);

  // For http_request::set_response_stream.
  [[nodiscard]] concurrency::streams::ostream Stream() const;

  // Returns the bytes kept. Complete only after the library has ended the body.
  [[nodiscard]] std::string Kept() const;

 private:
  class Buffer;
  std::shared_ptr<Buffer> buffer_;
};

}  // namespace CorvidSocket
