// A bar chart of the days.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "status/survey.h"

namespace kyd {

// The next round number that is not below the given one: 1, 2, 4, 5, 10, 20, 40, 50, 100 ... (at
// least 4, so that its quarters are different).
[[nodiscard]] std::uint64_t AxisEnd(std::uint64_t largest) noexcept;

// An inline SVG picture with two bars per day, sent and failed, the oldest day on the left. `days`
// as in a survey. Colours come from the page's classes "sent" and "failed".
[[nodiscard]] std::wstring DayChart(const std::vector<DayStatus>& days);

}  // namespace kyd
