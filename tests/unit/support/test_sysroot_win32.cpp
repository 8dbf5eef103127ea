// Windows has no sysroot; under Wine the tests have their own prefix.
#include "tests/unit/support/test_sysroot.h"

namespace kyd_test {

TestSysroot::TestSysroot() = default;
TestSysroot::~TestSysroot() = default;

}  // namespace kyd_test
