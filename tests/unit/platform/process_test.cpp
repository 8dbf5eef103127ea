#include "platform/process.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(Process, NumbersAreStable) {
  EXPECT_NE(platform::ProcessId(), 0U);
  EXPECT_EQ(platform::ProcessId(), platform::ProcessId());
  EXPECT_EQ(platform::SessionId(), platform::SessionId());
  EXPECT_EQ(platform::ThreadId(), platform::ThreadId());
}

TEST(Process, ThreadsHaveDifferentNumbers) {
  const std::uint32_t own = platform::ThreadId();
  std::uint32_t other = 0;
  std::thread([&other] { other = platform::ThreadId(); }).join();
  EXPECT_NE(own, 0U);
  EXPECT_NE(other, 0U);
  EXPECT_NE(own, other);
}

TEST(Process, A64BitProcessIsNotEmulated) {
  static_assert(sizeof(void*) == 8);
  EXPECT_FALSE(platform::IsWow64Process());
}

}  // namespace
