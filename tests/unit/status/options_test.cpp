#include "status/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/text.h"

namespace {

using kyd::CommandLine;
using testing::HasSubstr;

CommandLine Read(const std::vector<std::string>& arguments) {
  return kyd::ReadCommandLine(arguments,
                              [](const std::string& path) { return platform::FromUtf8(path); });
}

TEST(ReadCommandLine, RequiresOnlyTheLogDirectory) {
  const CommandLine line = Read({"/logs"});
  ASSERT_FALSE(line.answer);
  EXPECT_EQ(line.options.log_dir, L"/logs");
  EXPECT_EQ(line.options.days, 7U);
  EXPECT_FALSE(line.options.json);
  EXPECT_EQ(line.options.html_file, L"");
  EXPECT_EQ(line.options.metrics_file, L"");
  EXPECT_FALSE(line.options.per_account);
  EXPECT_FALSE(line.options.limits.max_age_hours);
  EXPECT_FALSE(line.options.limits.max_errors);
}

TEST(ReadCommandLine, AcceptsAllOptionsInAnyOrder) {
  const CommandLine line = Read({"--json", "--days", "366", "--html=p\xC3\xA4ge.html", "--max-age",
                                 "24", "logs", "--max-errors=0"});
  ASSERT_FALSE(line.answer);
  EXPECT_EQ(line.options.log_dir, L"logs");
  EXPECT_EQ(line.options.days, 366U);
  EXPECT_TRUE(line.options.json);
  EXPECT_EQ(line.options.html_file, L"p\x00E4ge.html");
  EXPECT_EQ(line.options.limits.max_age_hours, 24U);
  EXPECT_EQ(line.options.limits.max_errors, 0U);
}

TEST(ReadCommandLine, AcceptsADirectoryThatLooksLikeAnOption) {
  const CommandLine line = Read({"--", "--json"});
  ASSERT_FALSE(line.answer);
  EXPECT_EQ(line.options.log_dir, L"--json");
}

TEST(ReadCommandLine, RejectsInvalidArguments) {
  const std::vector<std::vector<std::string>> wrong = {
      {},
      {""},
      {"a", "b"},
      {"a", "--days"},
      {"a", "--days", "0"},
      {"a", "--days", "367"},
      {"a", "--days", "-1"},
      {"a", "--days", "7x"},
      {"a", "--days", "99999999999999999999"},
      {"a", "--days", "1", "--days", "2"},
      {"a", "--max-age", "-1"},
      {"a", "--max-age", "1.5"},
      {"a", "--max-age", "100001"},
      {"a", "--max-errors", ""},
      {"a", "--max-errors", "5000000000"},
      {"a", "--html"},
      {"a", "--html="},
      {"a", "--openmetrics"},
      {"a", "--openmetrics="},
      {"a", "--per-account"},
      {"a", "--JSON"},
      {"a", "--unknown"},
  };
  for (const std::vector<std::string>& arguments : wrong) {
    const CommandLine line = Read(arguments);
    ASSERT_TRUE(line.answer) << testing::PrintToString(arguments);
    EXPECT_EQ(line.answer->exit_code, kyd::kExitUsage) << testing::PrintToString(arguments);
    EXPECT_THAT(line.answer->text, HasSubstr(L"--help")) << testing::PrintToString(arguments);
  }
}

TEST(ReadCommandLine, AcceptsTheMetricsFile) {
  const CommandLine line = Read({"logs", "--openmetrics", "m\xC3\xA4.prom", "--per-account"});
  ASSERT_FALSE(line.answer);
  EXPECT_EQ(line.options.metrics_file, L"m\x00E4.prom");
  EXPECT_TRUE(line.options.per_account);
}

TEST(ReadCommandLine, PrintsItsHelp) {
  const CommandLine help = Read({"--help"});
  ASSERT_TRUE(help.answer);
  EXPECT_EQ(help.answer->exit_code, 0);
  for (const wchar_t* const word :
       {L"LogDir", L"--days", L"--json", L"--html", L"--max-age", L"--max-errors", L"--openmetrics",
        L"--per-account", L"--version", L"critical"}) {
    EXPECT_THAT(help.answer->text, HasSubstr(word));
  }
  const CommandLine version = Read({"--version"});
  ASSERT_TRUE(version.answer);
  EXPECT_EQ(version.answer->exit_code, 0);
  EXPECT_THAT(version.answer->text, testing::StartsWith(L"KydUploadStatus "));
}

}  // namespace
