#include "platform/string_table.h"

#include <gtest/gtest.h>

namespace {

// test_strings.rc holds the same texts for Windows.
constexpr platform::StringResource kTable[] = {
    {101, L"first\r\nline"}, {102, L""}, {65535, L"last"}, {0, nullptr}};

platform::InstanceHandle Instance() {
#ifdef _WIN32
  return nullptr;  // the program itself
#else
  return kTable;
#endif
}

TEST(StringTable, FindsATextByItsNumber) {
  EXPECT_EQ(platform::LoadText(Instance(), 101, 2048), kTable[0].text);
  EXPECT_EQ(platform::LoadText(Instance(), 65535, 2048), kTable[2].text);
}

TEST(StringTable, TruncatesATextBelowTheCapacity) {
  EXPECT_EQ(platform::LoadText(Instance(), 101, 12), L"first\r\nline");
  EXPECT_EQ(platform::LoadText(Instance(), 101, 11), L"first\r\nlin");
  EXPECT_EQ(platform::LoadText(Instance(), 101, 2), L"f");
  EXPECT_EQ(platform::LoadText(Instance(), 101, 1), L"");
  EXPECT_EQ(platform::LoadText(Instance(), 101, 0), L"");
}

TEST(StringTable, IsEmptyForAMissingOrEmptyText) {
  EXPECT_EQ(platform::LoadText(Instance(), 103, 2048), L"");
  EXPECT_EQ(platform::LoadText(Instance(), 102, 2048), L"");
}

}  // namespace
