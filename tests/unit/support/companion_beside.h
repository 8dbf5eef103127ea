// A companion library in the test program's folder.
#pragma once

#include <string>

namespace kyd_test {

// Copies a companion library into the test program's folder, where the program looks for it, and
// removes it at the end. Throws std::filesystem::filesystem_error on failure.
class CompanionBeside {
 public:
  // `variant` selects a library that lacks an export: "no-decrypt", "no-base64" or "no-event-log";
  // empty selects the complete one.
  explicit CompanionBeside(const std::string& variant = "");
  ~CompanionBeside();
  CompanionBeside(const CompanionBeside&) = delete;
  CompanionBeside& operator=(const CompanionBeside&) = delete;
};

// Whether this process has loaded a companion library from the test program's folder.
[[nodiscard]] bool CompanionBesideIsLoaded();

}  // namespace kyd_test
