// Draws in its own units; the page scales the picture.
#include "status/day_chart.h"

#include <algorithm>
#include <limits>

#include "debuglog/format.h"
#include "status/calendar.h"
#include "status/wording.h"

namespace kyd {

namespace {

constexpr std::size_t kElementCapacity = 256;  // characters
constexpr double kWidth = 760;
constexpr double kHeight = 240;
constexpr double kTop = 14;     // room for half a line of text
constexpr double kBottom = 26;  // for the dates
constexpr double kLeft = 64;    // for the numbers
constexpr double kRight = 8;
constexpr double kPlotWidth = kWidth - kLeft - kRight;
constexpr double kPlotHeight = kHeight - kTop - kBottom;
constexpr double kLowestBar = 2;  // makes every nonzero value visible
constexpr double kWidestBar = 26;
constexpr double kDateWidth = 52;
constexpr unsigned kGridLines = 4;

double HeightOf(std::uint64_t value, std::uint64_t end) {
  if (value == 0) {
    return 0;
  }
  const double height = kPlotHeight * static_cast<double>(value) / static_cast<double>(end);
  return std::max(height, kLowestBar);
}

std::wstring Bar(const wchar_t* kind, double x, double width, double height) {
  if (height == 0) {
    return {};
  }
  return FormatBounded(kElementCapacity,
                       L"<rect class=\"%s\" x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\"/>",
                       kind, x, kTop + kPlotHeight - height, width, height);
}

std::wstring Grid(std::uint64_t end) {
  std::wstring grid;
  for (unsigned i = 0; i <= kGridLines; ++i) {
    const double y = kTop + kPlotHeight * (kGridLines - i) / kGridLines;
    // The quarters of 10, 50 and so on are not whole numbers; these lines have no label.
    const bool is_whole = end % kGridLines == 0 || i % kGridLines == 0;
    grid +=
        FormatBounded(kElementCapacity, L"<line x1=\"%.2f\" x2=\"%.2f\" y1=\"%.2f\" y2=\"%.2f\"/>",
                      kLeft, kWidth - kRight, y, y);
    if (is_whole || (end * i) % kGridLines == 0) {
      grid += FormatBounded(kElementCapacity,
                            L"<text x=\"%.2f\" y=\"%.2f\" text-anchor=\"end\">%d</text>", kLeft - 8,
                            y + 4, end / kGridLines * i + end % kGridLines * i / kGridLines);
    }
  }
  return grid + L"\n";
}

std::wstring Description(const DayStatus& day) {
  return DateText(day.day) + L": " + std::to_wstring(day.result.sent) + L" sent, " +
         std::to_wstring(day.result.errors) + L" failed";
}

std::wstring DayBars(const DayStatus& day, std::uint64_t end, double x, double slot) {
  const double width = std::min(slot * 0.38, kWidestBar);
  const double middle = x + slot / 2;
  const double gap = std::min(slot * 0.04, 2.0) / 2;
  return L"<g><title>" + Description(day) + L"</title>" +
         // Pointing anywhere in the slot shows the day's numbers.
         FormatBounded(kElementCapacity,
                       L"<rect fill=\"transparent\" x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" "
                       L"height=\"%.2f\"/>",
                       x, kTop, slot, kPlotHeight) +
         Bar(L"sent", middle - gap - width, width, HeightOf(day.result.sent, end)) +
         Bar(L"failed", middle + gap, width, HeightOf(day.result.errors, end)) + L"</g>";
}

}  // namespace

std::uint64_t AxisEnd(std::uint64_t largest) noexcept {
  constexpr std::uint64_t kSteps[] = {4, 8, 10, 20};
  constexpr std::uint64_t kLargestScale = std::numeric_limits<std::uint64_t>::max() / 200;
  for (std::uint64_t scale = 1;; scale *= 10) {
    for (const std::uint64_t step : kSteps) {
      if (step * scale >= largest) {
        return step * scale;
      }
    }
    if (scale > kLargestScale) {
      return largest;
    }
  }
}

std::wstring DayChart(const std::vector<DayStatus>& days) {
  std::uint64_t largest = 0;
  for (const DayStatus& day : days) {
    largest = std::max({largest, day.result.sent, day.result.errors});
  }
  const std::uint64_t end = AxisEnd(largest);
  const double slot = kPlotWidth / static_cast<double>(std::max<std::size_t>(days.size(), 1));
  // Labels are far enough apart that the dates do not overlap.
  const auto step = static_cast<std::size_t>(kDateWidth / slot) + 1;
  std::wstring chart =
      FormatBounded(
          kElementCapacity,
          L"<svg viewBox=\"0 0 %.0f %.0f\" xmlns=\"http://www.w3.org/2000/svg\" "
          L"role=\"img\" aria-label=\"Bar chart of the files sent and failed on each day; "
          L"the table of the days has the numbers\">\n",
          kWidth, kHeight) +
      Grid(end);
  for (std::size_t i = 0; i < days.size(); ++i) {
    const double x = kLeft + slot * static_cast<double>(days.size() - 1 - i);
    chart += DayBars(days[i], end, x, slot);
    if (i % step == 0) {
      chart += FormatBounded(kElementCapacity,
                             L"<text x=\"%.2f\" y=\"%.2f\" text-anchor=\"middle\">%02d-%02d</text>",
                             x + slot / 2, kHeight - 8, days[i].day.month, days[i].day.day);
    }
    chart += L"\n";
  }
  return chart + L"</svg>\n";
}

}  // namespace kyd
