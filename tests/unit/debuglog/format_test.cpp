// Bounded printf-style formatting.
#include "debuglog/format.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

using kyd::FormatBounded;

TEST(FormatBounded, ExpandsWideTextAndNumbers) {
  EXPECT_EQ(FormatBounded(1024, L"[%d, %s]", 404, L"not here"), L"[404, not here]");
  EXPECT_EQ(FormatBounded(1024, L"%04d/%02d/%06d", 2024, 5, 12), L"2024/05/000012");
}

TEST(FormatBounded, ExpandsNarrowText) {
  EXPECT_EQ(FormatBounded(260, "a %s b %d", std::string("text"), 7), "a text b 7");
}

TEST(FormatBounded, DoesNotTruncateLongNumbers) {
  EXPECT_EQ(FormatBounded(64, L"PID:%06d", std::uint32_t{123456789}), L"PID:123456789");
}

TEST(FormatBounded, ShowsLargeErrorNumbersAsSigned) {
  EXPECT_EQ(FormatBounded(64, "[%d]", 0x80092004U), "[-2146885628]");
}

TEST(FormatBounded, TruncatesToOneBelowTheCapacity) {
  const std::string text(300, 'x');
  EXPECT_EQ(FormatBounded(260, "%s", text), std::string(259, 'x'));
  EXPECT_EQ(FormatBounded(260, "%s", std::string(259, 'x')), std::string(259, 'x'));
  EXPECT_EQ(FormatBounded(1024, L"%s", std::wstring(5000, L'y')), std::wstring(1023, L'y'));
}

TEST(FormatBounded, EndsTextAtItsFirstNul) {
  EXPECT_EQ(FormatBounded(64, L"[%s]", std::wstring(L"ab\0cd", 5)), L"[ab]");
}

TEST(FormatBounded, NeverReadsAnArgumentAsAFormat) {
  EXPECT_EQ(FormatBounded(64, L"[%s]", L"%s%n%d"), L"[%s%n%d]");
}

TEST(FormatBounded, ThrowsForAFormatThatDoesNotFit) {
  EXPECT_THROW(FormatBounded(64, "%s %s", "one"), std::exception);
}

}  // namespace
