// Days and times as dates.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/clock.h"

namespace kyd {

// Returns the latest `count` days, starting with the given one. Only the dates are set.
[[nodiscard]] std::vector<platform::LocalTime> LatestDays(const platform::LocalTime& today,
                                                          unsigned count);

// Returns the next day.
[[nodiscard]] platform::LocalTime DayAfter(const platform::LocalTime& day);

// "2024-03-05" (ISO 8601).
[[nodiscard]] std::wstring DateText(const platform::LocalTime& day);

// "2024-03-05T14:07:09", local time.
[[nodiscard]] std::wstring TimeText(const platform::LocalTime& time);

// "2024-03-05T14:07:09Z" of seconds since 1970; empty before the year 1970 and after 9999.
[[nodiscard]] std::wstring UtcText(std::int64_t seconds);

}  // namespace kyd
