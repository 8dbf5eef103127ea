// The one exception of the HTTP layer.
#pragma once

#include <boost/exception/all.hpp>
#include <exception>
#include <string>
#include <utility>

namespace CorvidSocket {

struct tag_errno;

// The Windows error number of the platform call that failed.
using ErrorNumber = boost::error_info<tag_errno, unsigned int>;

// Copyable; a copy keeps the error items (Boost.Exception).
class Exception : public boost::exception, public std::exception {
 public:
  // what() gives the message.
  explicit Exception(std::string message) : message_(std::move(message)) {}

  // Takes over another exception's error items and throw location; what() gives the standard
  // library's default text.
  explicit Exception(const boost::exception& items)
      : boost::exception(items), message_(std::exception().what()) {}

  [[nodiscard]] const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

}  // namespace CorvidSocket
