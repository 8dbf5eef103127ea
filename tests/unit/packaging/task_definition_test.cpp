#include "packaging/windows/task_definition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#ifdef _WIN32
#include <windows.h>

#include <shellapi.h>
#endif

namespace kyd::setup {
namespace {

TEST(TaskDefinition, TenantIsAHostWithAnOptionalPort) {
  for (const wchar_t* text :
       {L"tenant.example.com", L"tenant.example.com:8443", L"[::1]:443", L"a_b-c"}) {
    EXPECT_TRUE(IsTenant(text)) << std::wstring(text).size();
  }
  for (const wchar_t* text : {L"", L"https://a", L"a b", L"a\"b", L"a|b", L"a\\b",
                              L"gr\u00F6\u00DFe.example.com", L"a\n", L"a&b"}) {
    EXPECT_FALSE(IsTenant(text)) << std::wstring(text).size();
  }
}

TEST(TaskDefinition, LogDirIsAnAbsolutePath) {
  for (const wchar_t* text : {L"C:\\KydLog", L"d:/logs", L"C:\\", L"\\\\server\\share\\logs",
                              L"C:\\Kyd Log\\Gr\u00F6\u00DFe & 'more' %TEMP%"}) {
    EXPECT_TRUE(IsLogDir(text)) << std::wstring(text).size();
  }
  for (const wchar_t* text :
       {L"", L"C:", L"C:KydLog", L"KydLog", L"\\KydLog", L"\\\\", L"\\\\\\a", L"C:\\a\"b",
        L"C:\\a|b", L"C:\\a\nb", L"C:\\a:b", L"C:\\a*", L"1:\\a"}) {
    EXPECT_FALSE(IsLogDir(text)) << std::wstring(text).size();
  }
}

TEST(TaskDefinition, TrailingSeparatorsAreRemoved) {
  EXPECT_EQ(WithoutTrailingSeparators(L"C:\\KydLog\\"), L"C:\\KydLog");
  EXPECT_EQ(WithoutTrailingSeparators(L"C:\\KydLog\\/\\"), L"C:\\KydLog");
  EXPECT_EQ(WithoutTrailingSeparators(L"C:\\"), L"C:\\");
  EXPECT_EQ(WithoutTrailingSeparators(L"C:\\KydLog"), L"C:\\KydLog");
}

TEST(TaskDefinition, ArgumentsAreQuoted) {
  EXPECT_EQ(AsArgument(L"C:\\Kyd Log"), L"\"C:\\Kyd Log\"");
  EXPECT_EQ(AsArgument(L"C:\\"), L"\"C:\\\\\"");
  EXPECT_EQ(AsArgument(L"a\\\"b"), L"\"a\\\\\\\"b\"");
}

#ifdef _WIN32
TEST(TaskDefinition, QuotedArgumentsSplitIntoTheOriginals) {
  for (const wchar_t* text :
       {L"C:\\", L"C:\\Kyd Log", L"a\\\"b", L"\\\\\\", L"\"", L"", L"%PATH% \\\\\""}) {
    const std::wstring line = L"program.exe " + AsArgument(text) + L" last";
    int count = 0;
    wchar_t** arguments = CommandLineToArgvW(line.c_str(), &count);
    ASSERT_NE(arguments, nullptr);
    const std::vector<std::wstring> split(arguments, arguments + count);
    LocalFree(arguments);
    EXPECT_THAT(split, testing::ElementsAre(L"program.exe", text, L"last"));
  }
}
#endif

TEST(TaskDefinition, OnlyTheArgumentsAreReplacedAndEscaped) {
  EXPECT_EQ(WithArguments(L"<a/><Arguments>x \"y\"</Arguments><b/>", L"host:1", L"C:\\R&D <1>"),
            L"<a/><Arguments>\"host:1\" \"C:\\R&amp;D &lt;1&gt;\"</Arguments><b/>");
}

TEST(TaskDefinition, DefinitionWithoutArgumentsElementIsRefused) {
  EXPECT_EQ(WithArguments(L"", L"a", L"b"), L"");
  EXPECT_EQ(WithArguments(L"<Arguments>", L"a", L"b"), L"");
  EXPECT_EQ(WithArguments(L"</Arguments><Arguments>", L"a", L"b"), L"");
}

}  // namespace
}  // namespace kyd::setup
