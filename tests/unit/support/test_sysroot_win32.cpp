// Windows has no sysroot; the tests run in a Wine prefix of their own.
#include "tests/unit/support/test_sysroot.h"

namespace kyd_test {

TestSysroot::TestSysroot() = default;
TestSysroot::~TestSysroot() = default;

}  // namespace kyd_test
