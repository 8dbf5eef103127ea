#include "platform/clock.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

TEST(Clock, AgreesWithTheRunTimeLibrary) {
  const std::int64_t before = std::time(nullptr);
  const std::int64_t seconds = platform::SystemClock().Seconds();
  const std::int64_t after = std::time(nullptr);
  EXPECT_LE(before, seconds);
  EXPECT_LE(seconds, after);
}

TEST(Clock, LocalTimeMatchesTheSeconds) {
  const platform::Clock& clock = platform::SystemClock();
  const std::int64_t before = clock.Seconds();
  const platform::LocalTime local = clock.Local();
  const std::int64_t after = clock.Seconds();

  std::tm parts = {};
  parts.tm_year = local.year - 1900;
  parts.tm_mon = local.month - 1;
  parts.tm_mday = local.day;
  parts.tm_hour = local.hour;
  parts.tm_min = local.minute;
  parts.tm_sec = local.second;
  parts.tm_isdst = -1;
  const std::int64_t moment = std::mktime(&parts);
  EXPECT_LE(before, moment);
  EXPECT_LE(moment, after);
  EXPECT_GE(local.millisecond, 0);
  EXPECT_LE(local.millisecond, 999);
}

TEST(Clock, LocalTimeConvertsToSecondsAndBack) {
  const platform::Clock& clock = platform::SystemClock();
  const std::int64_t before = clock.Seconds();
  const std::optional<std::int64_t> seconds = platform::SecondsOf(clock.Local());
  const std::int64_t after = clock.Seconds();
  ASSERT_TRUE(seconds);
  EXPECT_LE(before, *seconds);
  EXPECT_LE(*seconds, after);
}

TEST(Clock, InvalidDateHasNoSeconds) {
  EXPECT_TRUE(platform::SecondsOf({2024, 2, 29, 12, 0, 0, 0}));
  EXPECT_FALSE(platform::SecondsOf({2023, 2, 29, 12, 0, 0, 0}));
  EXPECT_FALSE(platform::SecondsOf({2024, 4, 31, 12, 0, 0, 0}));
  EXPECT_FALSE(platform::SecondsOf({2024, 13, 1, 12, 0, 0, 0}));
  EXPECT_FALSE(platform::SecondsOf({2024, 4, 30, 24, 0, 0, 0}));
  EXPECT_FALSE(platform::SecondsOf({2024, 4, 30, 12, 60, 0, 0}));
}

TEST(Clock, IsASingleObject) {
  EXPECT_EQ(&platform::SystemClock(), &platform::SystemClock());
}

}  // namespace
