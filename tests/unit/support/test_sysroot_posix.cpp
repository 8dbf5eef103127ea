// Sets the sysroot through the environment.
#include <cstdlib>

#include "platform/text.h"
#include "tests/unit/support/test_sysroot.h"

namespace kyd_test {
namespace {
constexpr char kVariable[] = "KEYWARD_SYSROOT";
}  // namespace

// The environment changes between the parts of a test, while no other thread runs.
// NOLINTBEGIN(concurrency-mt-unsafe)
TestSysroot::TestSysroot() {
  folder_.MakeFolder(L"run/lock");
  folder_.MakeFolder(L"etc/keyward");
  folder_.MakeFolder(L"var/log");
  if (const char* const value = std::getenv(kVariable)) {
    earlier_ = value;
  }
  setenv(kVariable, platform::ToNativePath(folder_.Path()).c_str(), /*overwrite=*/1);
}

TestSysroot::~TestSysroot() {
  if (earlier_) {
    setenv(kVariable, earlier_->c_str(), /*overwrite=*/1);
  } else {
    unsetenv(kVariable);
  }
}

// NOLINTEND(concurrency-mt-unsafe)

}  // namespace kyd_test
