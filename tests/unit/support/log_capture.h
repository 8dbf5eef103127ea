// The program's diagnostic messages during a test.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kyd_test {

// Enables the program's own logger, once per test program, with a folder of its own, and returns
// the messages written since the object was created.
class LogCapture {
 public:
  LogCapture();

  // Returns the messages in order, without prefix, trailing comma and line ending; a message of
  // several lines is one entry with line feeds.
  [[nodiscard]] std::vector<std::string> Messages() const;

 private:
  std::size_t start_;
};

}  // namespace kyd_test
