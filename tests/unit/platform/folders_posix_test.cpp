#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/folders.h"
#include "platform/sysroot_posix.h"
#include "tests/unit/support/test_sysroot.h"

namespace {

TEST(Sysroot, MayEndInSeparators) {
  const kyd_test::TestSysroot sysroot;  // restores the variable
  // NOLINTBEGIN(concurrency-mt-unsafe): no other thread runs
  setenv("KEYWARD_SYSROOT", "/somewhere//", /*overwrite=*/1);
  EXPECT_EQ(platform::DefaultLogBase(), L"/somewhere/var/log/");
  setenv("KEYWARD_SYSROOT", "/", /*overwrite=*/1);
  EXPECT_EQ(platform::UnderSysroot("/run/lock/name"), "/run/lock/name");
  setenv("KEYWARD_SYSROOT", "", /*overwrite=*/1);
  EXPECT_EQ(platform::UnderSysroot("/run/lock/name"), "/run/lock/name");
  // NOLINTEND(concurrency-mt-unsafe)
}

}  // namespace
