#include "status/format_match.h"

#include <gtest/gtest.h>

namespace {

using kyd::FormatFields;
using kyd::MatchFormat;

TEST(MatchFormat, ReturnsTheNumbersInOrder) {
  const std::optional<FormatFields> fields =
      MatchFormat(L"  %04d:%02d: %d end", L"  2024:03: -7 end");
  ASSERT_TRUE(fields);
  EXPECT_EQ(fields->numbers, (std::vector<std::int64_t>{2024, 3, -7}));
  EXPECT_TRUE(fields->texts.empty());
}

TEST(MatchFormat, MatchesANameThatLooksLikeTheRestOfTheFormat) {
  const std::optional<FormatFields> fields = MatchFormat(L"[%s / %d]", L"[a / 1] / 22]");
  ASSERT_TRUE(fields);
  EXPECT_EQ(fields->texts, std::vector<std::wstring>{L"a / 1]"});
  EXPECT_EQ(fields->numbers, std::vector<std::int64_t>{22});
}

TEST(MatchFormat, MatchesEmptyTextAndTextUpToTheEnd) {
  EXPECT_EQ(MatchFormat(L"[%s]", L"[]")->texts.front(), L"");
  EXPECT_EQ(MatchFormat(L"a : %s", L"a : b c")->texts.front(), L"b c");
}

TEST(MatchFormat, RejectsTextThatTheFormatCannotProduce) {
  for (const wchar_t* const text : {L"", L"[", L"[1", L"[1] ", L" [1]", L"[]", L"[-]", L"[x]",
                                    L"[1x]", L"[+1]", L"[1234567890123456789]"}) {
    EXPECT_FALSE(MatchFormat(L"[%d]", text)) << text;
  }
}

TEST(MatchFormat, RejectsAnUnsupportedFormat) {
  EXPECT_FALSE(MatchFormat(L"%x", L"1"));
  EXPECT_FALSE(MatchFormat(L"%", L"%"));
  EXPECT_FALSE(MatchFormat(L"%12", L"12"));
}

TEST(MatchFormat, RejectsLongTextQuickly) {
  EXPECT_FALSE(MatchFormat(L"[%s / %d]", L"[" + std::wstring(100'000, L'/')));
}

}  // namespace
