#include "status/day_chart.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

unsigned Count(const std::wstring& text, const std::wstring& what) {
  unsigned count = 0;
  for (std::size_t at = text.find(what); at != std::wstring::npos; at = text.find(what, at + 1)) {
    ++count;
  }
  return count;
}

std::vector<kyd::DayStatus> Days(std::size_t count, std::uint64_t sent, std::uint64_t errors) {
  std::vector<kyd::DayStatus> days(count);
  for (kyd::DayStatus& day : days) {
    day.day = {2024, 3, 5, 0, 0, 0, 0};
    day.result.sent = sent;
    day.result.errors = errors;
  }
  return days;
}

TEST(AxisEnd, RoundsUp) {
  const std::vector<std::pair<std::uint64_t, std::uint64_t>> cases = {
      {0, 4},   {1, 4},    {4, 4},     {5, 8},         {9, 10},           {11, 20},
      {21, 40}, {81, 100}, {101, 200}, {1'234, 2'000}, {99'999, 100'000},
  };
  for (const auto& [largest, end] : cases) {
    EXPECT_EQ(kyd::AxisEnd(largest), end) << largest;
  }
  EXPECT_GE(kyd::AxisEnd(std::numeric_limits<std::uint64_t>::max() - 1),
            std::numeric_limits<std::uint64_t>::max() - 1);
}

TEST(DayChart, HasABarForEveryNumberThatIsNotZero) {
  const std::wstring chart = kyd::DayChart(Days(7, 10, 0));
  EXPECT_EQ(Count(chart, L"<rect class=\"sent\""), 7U);
  EXPECT_EQ(Count(chart, L"<rect class=\"failed\""), 0U);
  EXPECT_EQ(Count(chart, L"2024-03-05: 10 sent, 0 failed"), 7U);
}

TEST(DayChart, SmallValuesStayVisible) {
  EXPECT_NE(kyd::DayChart(Days(1, 1'000'000, 1)).find(L"height=\"2.00\""), std::wstring::npos);
}

TEST(DayChart, OmitsDatesThatDoNotFit) {
  EXPECT_EQ(Count(kyd::DayChart(Days(7, 1, 1)), L">03-05<"), 7U);
  const unsigned dates = Count(kyd::DayChart(Days(366, 1, 1)), L">03-05<");
  EXPECT_GT(dates, 5U);
  EXPECT_LT(dates, 15U);
}

}  // namespace
