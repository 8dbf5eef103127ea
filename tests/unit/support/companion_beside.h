// A companion library beside the test program.
#pragma once

#include <string>

namespace kyd_test {

// Copies a built companion library into the test program's own folder, where the program looks for
// it, and removes it again. Throws std::filesystem::filesystem_error when that fails.
class CompanionBeside {
 public:
  // `variant` is empty for the whole library, or names one that lacks an export: "no-decrypt",
  // "no-base64", "no-event-log".
  explicit CompanionBeside(const std::string& variant = "");
  ~CompanionBeside();
  CompanionBeside(const CompanionBeside&) = delete;
  CompanionBeside& operator=(const CompanionBeside&) = delete;
};

// Whether this process has a companion library loaded from the test program's folder.
[[nodiscard]] bool CompanionBesideIsLoaded();

}  // namespace kyd_test
