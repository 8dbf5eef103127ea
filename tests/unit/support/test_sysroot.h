// The machine-wide folders of a test's own.
#pragma once

#include <optional>
#include <string>

#include "tests/unit/support/temp_folder.h"

namespace kyd_test {

// On Linux every machine-wide path lies below a temporary folder while the object lives
// (KEYWARD_SYSROOT), with run/lock, etc/keyward and var/log in it. On Windows the machine's own
// folders stay; Folder() is then just a temporary folder.
class TestSysroot {
 public:
  TestSysroot();
  ~TestSysroot();
  TestSysroot(const TestSysroot&) = delete;
  TestSysroot& operator=(const TestSysroot&) = delete;

  [[nodiscard]] const TempFolder& Folder() const noexcept { return folder_; }

 private:
  TempFolder folder_;
  std::optional<std::string> earlier_;  // value of the variable before
};

}  // namespace kyd_test
