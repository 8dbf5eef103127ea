// Dates by Boost's Gregorian calendar.
#include "status/calendar.h"

#include <boost/date_time/gregorian/gregorian_types.hpp>

#include "debuglog/format.h"

namespace kyd {

namespace {

using boost::gregorian::date;
using boost::gregorian::days;

constexpr std::size_t kTextCapacity = 64;  // characters
constexpr std::int64_t kSecondsPerDay = 86'400;
constexpr std::int64_t kLastSecond = 253'402'300'799;  // of the year 9999

date DateOf(const platform::LocalTime& day) {
  return {static_cast<unsigned short>(day.year), static_cast<unsigned short>(day.month),
          static_cast<unsigned short>(day.day)};
}

platform::LocalTime DayOf(const date& day) {
  platform::LocalTime parts;
  parts.year = day.year();
  parts.month = day.month();
  parts.day = day.day();
  return parts;
}

}  // namespace

std::vector<platform::LocalTime> LatestDays(const platform::LocalTime& today, unsigned count) {
  std::vector<platform::LocalTime> latest;
  date day = DateOf(today);
  for (unsigned i = 0; i < count; ++i, day -= days(1)) {
    latest.push_back(DayOf(day));
  }
  return latest;
}

platform::LocalTime DayAfter(const platform::LocalTime& day) {
  return DayOf(DateOf(day) + days(1));
}

std::wstring DateText(const platform::LocalTime& day) {
  return FormatBounded(kTextCapacity, L"%04d-%02d-%02d", day.year, day.month, day.day);
}

std::wstring TimeText(const platform::LocalTime& time) {
  return DateText(time) +
         FormatBounded(kTextCapacity, L"T%02d:%02d:%02d", time.hour, time.minute, time.second);
}

std::wstring UtcText(std::int64_t seconds) {
  if (seconds < 0 || seconds > kLastSecond) {
    return {};
  }
  platform::LocalTime time =
      DayOf(date(1970, 1, 1) + days(static_cast<long>(seconds / kSecondsPerDay)));
  const auto of_day = static_cast<int>(seconds % kSecondsPerDay);
  time.hour = of_day / 3600;
  time.minute = of_day / 60 % 60;
  time.second = of_day % 60;
  return TimeText(time) + L"Z";
}

}  // namespace kyd
