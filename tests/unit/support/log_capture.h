// What the program says in its diagnostic log while a test runs.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kyd_test {

// Switches the program's own logger on, once for the test program, into a folder of its own, and
// gives the messages written since the object was made.
class LogCapture {
 public:
  LogCapture();

  // The messages in order, without prefix, trailing comma and line end; a message of several lines
  // is one entry with line feeds.
  [[nodiscard]] std::vector<std::string> Messages() const;

 private:
  std::size_t start_;
};

}  // namespace kyd_test
