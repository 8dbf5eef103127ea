#include "status/wording.h"

#include <gtest/gtest.h>

#include <limits>

#include "platform/error.h"

namespace {

TEST(Printable, ReplacesControlCharacters) {
  EXPECT_EQ(kyd::Printable(L"\x1B[2Ja\nb\x7F\x9B\x202E"),
            L"\xFFFD[2Ja\xFFFD"
            L"b\xFFFD\xFFFD\xFFFD");
  EXPECT_EQ(kyd::Printable(L"\x00E4 \x20AC <&>"), L"\x00E4 \x20AC <&>");
}

TEST(PrintableAndDistinct, KeepsHarmlessText) {
  EXPECT_EQ(kyd::PrintableAndDistinct(L"a\\b \"\x00E4\x20AC\U0001F600\"\n"),
            L"a\\b \"\x00E4\x20AC\U0001F600\"\n");
}

TEST(PrintableAndDistinct, ShowsTheCodeOfReplacedCharacters) {
  EXPECT_EQ(kyd::PrintableAndDistinct(L"\x1B[2J\r\x202E"),
            L"\xFFFD"
            L"00001B[2J\xFFFD"
            L"00000D\xFFFD"
            L"00202E");
  // Otherwise a name that contains this text could equal one with a replaced character.
  EXPECT_EQ(kyd::PrintableAndDistinct(L"\xFFFD"),
            L"\xFFFD"
            L"00FFFD");
}

TEST(PrintableAndDistinct, ShowsTheCodeOfUnpairedSurrogates) {
  // They occur in Linux names that are not UTF-8, and in Windows names.
  const std::wstring low(1, static_cast<wchar_t>(0xDCFF));
  const std::wstring high(1, static_cast<wchar_t>(0xD83D));
  EXPECT_EQ(kyd::PrintableAndDistinct(low + L"a"),
            L"\xFFFD"
            L"00DCFFa");
  EXPECT_EQ(kyd::PrintableAndDistinct(high + L"a" + high),
            L"\xFFFD"
            L"00D83Da\xFFFD"
            L"00D83D");
}

TEST(Counted, DistinguishesSingularAndPlural) {
  EXPECT_EQ(kyd::Counted(0, L"file", L"files"), L"0 files");
  EXPECT_EQ(kyd::Counted(1, L"file", L"files"), L"1 file");
  EXPECT_EQ(kyd::Counted(2, L"file", L"files"), L"2 files");
}

TEST(DurationText, HasAtMostTwoParts) {
  const std::vector<std::pair<std::int64_t, const wchar_t*>> cases = {
      {0, L"0 s"},          {59, L"59 s"},        {60, L"1 min"},           {3599, L"59 min"},
      {3600, L"1 h"},       {3660, L"1 h 1 min"}, {86'399, L"23 h 59 min"}, {86'400, L"1 d"},
      {90'000, L"1 d 1 h"},
  };
  for (const auto& [seconds, text] : cases) {
    EXPECT_EQ(kyd::DurationText(seconds), text);
  }
}

TEST(SizeText, SwitchesToTheNextUnitBeforeFourDigits) {
  const std::vector<std::pair<std::uint64_t, const wchar_t*>> cases = {
      {0, L"0 B"},
      {1023, L"1023 B"},
      {1024, L"1.0 KiB"},
      {1536, L"1.5 KiB"},
      {1'048'575, L"1.0 MiB"},
      {std::uint64_t{5} << 30, L"5.0 GiB"},
      {std::numeric_limits<std::uint64_t>::max(), L"16.0 EiB"},
  };
  for (const auto& [bytes, text] : cases) {
    EXPECT_EQ(kyd::SizeText(bytes), text);
  }
}

TEST(ErrorText, DescribesCommonErrors) {
  EXPECT_EQ(kyd::ErrorText(platform::kErrorPathNotFound), L"missing");
  EXPECT_EQ(kyd::ErrorText(platform::kErrorAccessDenied), L"access denied");
  EXPECT_EQ(kyd::ErrorText(platform::kErrorSharingViolation), L"in use");
  EXPECT_EQ(kyd::ErrorText(31), L"error 31");
}

TEST(AgeOf, IsNeverNegative) {
  EXPECT_EQ(kyd::AgeOf(100, 160), 60);
  EXPECT_EQ(kyd::AgeOf(200, 160), 0);
  EXPECT_EQ(kyd::AgeOf(std::numeric_limits<std::int64_t>::max(), 0), 0);
}

}  // namespace
