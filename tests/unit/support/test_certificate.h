// A client certificate for a test.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace kyd_test {

// A certificate in the current user's "MY" store while the object exists: on Windows in the real
// store, on Linux in that of a temporary home folder. Throws std::runtime_error if it cannot be
// added.
class TestCertificate {
 public:
  TestCertificate();
  ~TestCertificate();
  TestCertificate(const TestCertificate&) = delete;
  TestCertificate& operator=(const TestCertificate&) = delete;

  // Its SHA-1 thumbprint.
  [[nodiscard]] const std::vector<std::uint8_t>& Thumbprint() const noexcept { return thumbprint_; }

 private:
  struct State;
  std::unique_ptr<State> state_;
  std::vector<std::uint8_t> thumbprint_;
};

}  // namespace kyd_test
