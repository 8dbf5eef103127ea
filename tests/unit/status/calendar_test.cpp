#include "status/calendar.h"

#include <gtest/gtest.h>

namespace {

std::vector<std::wstring> Dates(const platform::LocalTime& today, unsigned count) {
  std::vector<std::wstring> dates;
  for (const platform::LocalTime& day : kyd::LatestDays(today, count)) {
    dates.push_back(kyd::DateText(day));
  }
  return dates;
}

TEST(LatestDays, CrossesMonthsAndLeapDays) {
  const std::vector<std::wstring> expected = {L"2024-03-01", L"2024-02-29", L"2024-02-28"};
  EXPECT_EQ(Dates({2024, 3, 1, 23, 59, 59, 0}, 3), expected);
  EXPECT_EQ(Dates({2023, 3, 1, 0, 0, 0, 0}, 2).back(), L"2023-02-28");
  EXPECT_EQ(Dates({2024, 1, 1, 0, 0, 0, 0}, 366).back(), L"2023-01-01");
}

TEST(TimeText, HasAllItsDigits) {
  EXPECT_EQ(kyd::TimeText({2024, 3, 5, 4, 7, 9, 42}), L"2024-03-05T04:07:09");
}

TEST(UtcText, FormatsATimeInUtc) {
  EXPECT_EQ(kyd::UtcText(0), L"1970-01-01T00:00:00Z");
  EXPECT_EQ(kyd::UtcText(1'709'647'629), L"2024-03-05T14:07:09Z");
  EXPECT_EQ(kyd::UtcText(253'402'300'799), L"9999-12-31T23:59:59Z");
}

TEST(UtcText, IsEmptyBeyondTheCalendar) {
  EXPECT_EQ(kyd::UtcText(-1), L"");
  EXPECT_EQ(kyd::UtcText(253'402'300'800), L"");
  EXPECT_EQ(kyd::UtcText(INT64_MAX), L"");
}

}  // namespace
