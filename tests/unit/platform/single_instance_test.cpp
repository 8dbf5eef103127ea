#include "platform/single_instance.h"

#include <gtest/gtest.h>

#include "tests/unit/support/test_sysroot.h"

namespace {

constexpr wchar_t kName[] = L"KydPlatformTestsMutexString";

TEST(SingleInstance, HasOneOwnerAtATime) {
  const kyd_test::TestSysroot sysroot;
  const platform::SingleInstance first(kName);
  EXPECT_TRUE(first.IsOwner());
  const platform::SingleInstance second(kName);
  EXPECT_FALSE(second.IsOwner());
  // A refused instance does not affect the owner.
  const platform::SingleInstance third(kName);
  EXPECT_FALSE(third.IsOwner());
}

TEST(SingleInstance, ReleasesTheName) {
  const kyd_test::TestSysroot sysroot;
  {
    const platform::SingleInstance first(kName);
    EXPECT_TRUE(first.IsOwner());
  }
  const platform::SingleInstance second(kName);
  EXPECT_TRUE(second.IsOwner());
}

TEST(SingleInstance, NamesAreIndependent) {
  const kyd_test::TestSysroot sysroot;
  const platform::SingleInstance first(kName);
  const platform::SingleInstance other(L"KydPlatformTestsOtherString");
  EXPECT_TRUE(first.IsOwner());
  EXPECT_TRUE(other.IsOwner());
}

TEST(SingleInstance, HasNoOwnerUnderAnUnusableName) {
  const kyd_test::TestSysroot sysroot;
#ifdef _WIN32
  const platform::SingleInstance instance(L"no\\such\\folder");
#else
  const platform::SingleInstance instance(L"no/such/folder");
#endif
  EXPECT_FALSE(instance.IsOwner());
}

TEST(OwnerOfInstance, ReportsAnOwnerWithoutBecomingIt) {
  using platform::InstanceOwner;
  const kyd_test::TestSysroot sysroot;
  EXPECT_EQ(platform::OwnerOfInstance(kName), InstanceOwner::kNone);
  {
    const platform::SingleInstance owner(kName);
    ASSERT_TRUE(owner.IsOwner());
    EXPECT_EQ(platform::OwnerOfInstance(kName), InstanceOwner::kAnotherProcess);
    EXPECT_EQ(platform::OwnerOfInstance(L"KydPlatformTestsOtherString"), InstanceOwner::kNone);
  }
  EXPECT_EQ(platform::OwnerOfInstance(kName), InstanceOwner::kNone);
  EXPECT_TRUE(platform::SingleInstance(kName).IsOwner());
}

}  // namespace
