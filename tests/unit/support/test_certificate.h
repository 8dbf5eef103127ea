// A client certificate of a test's own.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace kyd_test {

// A certificate in the current user's "MY" store while the object lives: on Windows in the store
// itself, on Linux in that of a home folder of its own. Throws std::runtime_error when it cannot be
// put there.
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
