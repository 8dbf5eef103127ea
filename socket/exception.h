// The exception of the HTTP layer.
#pragma once

#include <boost/exception/all.hpp>
#include <exception>
#include <string>
#include <utility>

namespace CorvidSocket {

struct tag_errno;

// The Windows error number of the platform call that failed.
using ErrorNumber = boost::error_info<tag_errno, unsigned int>;

// Copyable; a copy keeps the error items (Boost.Exception) and shares nothing with its original.
// Boost would let both share the items with a plain int as reference count, but the original may
// belong to a task of the library, which on Windows may release it in another thread at any time.
class Exception : public boost::exception, public std::exception {
 public:
  // `message` is the result of what().
  explicit Exception(std::string message) : message_(std::move(message)) {}

  // Copies another exception's error items and throw location; what() returns the standard
  // library's default text.
  explicit Exception(const boost::exception& items) : message_(std::exception().what()) {
    CopyItems(items);
  }

  // Does not use Boost's copy constructor, which would share the items.
  // NOLINTNEXTLINE(bugprone-copy-constructor-init)
  Exception(const Exception& other)
      : boost::exception(),  // NOLINT(readability-redundant-member-init): the compiler requires it
        std::exception(other),
        message_(other.message_) {
    CopyItems(other);
  }
  Exception& operator=(const Exception&) = delete;

  [[nodiscard]] const char* what() const noexcept override { return message_.c_str(); }

 private:
  void CopyItems(const boost::exception& items) {
    boost::exception_detail::copy_boost_exception(this, &items);
  }

  std::string message_;
};

}  // namespace CorvidSocket
