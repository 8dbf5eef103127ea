// Machine-wide folders for a test.
#pragma once

#include <optional>
#include <string>

#include "tests/unit/support/temp_folder.h"

namespace kyd_test {

// On Linux all machine-wide paths are redirected to a temporary folder while the object exists
// (KEYWARD_SYSROOT); it contains run/lock, etc/keyward and var/log. On Windows the machine's own
// folders stay in use, and Folder() is just a temporary folder.
class TestSysroot {
 public:
  TestSysroot();
  ~TestSysroot();
  TestSysroot(const TestSysroot&) = delete;
  TestSysroot& operator=(const TestSysroot&) = delete;

  [[nodiscard]] const TempFolder& Folder() const noexcept { return folder_; }

 private:
  TempFolder folder_;
  std::optional<std::string> earlier_;  // previous value of the variable
};

}  // namespace kyd_test
