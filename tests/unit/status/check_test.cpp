#include "status/check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/text.h"
#include "tests/unit/support/fake_clock.h"
#include "tests/unit/support/temp_folder.h"
#include "tests/unit/support/test_registry.h"

namespace {

using kyd::Check;
using kyd::State;
using testing::HasSubstr;

Check Found(std::vector<kyd::Finding> findings) {
  Check check;
  check.log_dir = L"/logs";
  check.program_folder = L"/program";
  check.time.year = 2024;
  check.time.month = 2;
  check.time.day = 28;
  check.findings = std::move(findings);
  return check;
}

TEST(StateOfCheck, IsThatOfTheMostSevereFinding) {
  EXPECT_EQ(kyd::StateOf(Found({})), State::kOk);
  EXPECT_EQ(kyd::StateOf(Found({{State::kWarning, L"a", L"b", L"c"}})), State::kWarning);
  EXPECT_EQ(kyd::StateOf(Found({{State::kUnknown, {}, {}, {}}, {State::kWarning, {}, {}, {}}})),
            State::kUnknown);
  EXPECT_EQ(kyd::StateOf(Found({{State::kCritical, {}, {}, {}}, {State::kUnknown, {}, {}, {}}})),
            State::kCritical);
}

TEST(CheckText, HasASafeLineForEachFinding) {
  const std::wstring text = kyd::CheckText(Found({
      {State::kCritical, L"/program/Corvid.so", L"is missing", L"put it there"},
      {State::kWarning, L"/logs/Upload/\x1B[31m\n", L"is odd", L"rename it"},
  }));
  EXPECT_EQ(text,
            L"CRITICAL: 2 findings about the next run; checked with the rights of this user\n"
            L"CRITICAL  /program/Corvid.so is missing: put it there\n"
            L"WARNING  /logs/Upload/\xFFFD[31m\xFFFD is odd: rename it\n");
}

TEST(CheckJson, HasTheSameFindings) {
  const std::string json =
      kyd::CheckJson(Found({{State::kUnknown, L"a \"path\"\n", L"is odd", L"rename it"}}));
  EXPECT_THAT(json, HasSubstr("\"state\": \"unknown\""));
  EXPECT_THAT(json, HasSubstr("\"path\": \"a \\\"path\\\"\\n\""));
  EXPECT_THAT(json, HasSubstr("\"remedy\": \"rename it\""));
  EXPECT_THAT(json, HasSubstr("\"time\": \"2024-02-28T00:00:00\""));
}

TEST(CheckNextRun, FindsAResultOfALaterDay) {
  const kyd_test::TestRegistry registry;
  const kyd_test::TempFolder folder;
  folder.MakeFolder(L"Upload");
  folder.MakeFolder(L"UploadResult");
  kyd_test::FakeClock clock;
  clock.local.year = 2024;
  clock.local.month = 2;
  clock.local.day = 28;
  const std::wstring prefix = folder.Path() + platform::kPathSeparator + L"UploadResult" +
                              platform::kPathSeparator + L"UploadResult";
  const auto latest = [&] {
    kyd::Progress unseen;
    const Check check = kyd::CheckNextRun(folder.Path(), folder.Path(), clock, unseen);
    return check.findings.back().path;
  };
  const std::wstring without = latest();
  kyd_test::WriteFileBytes(prefix + L"20240229.log", "");
  EXPECT_EQ(latest(), without);
  kyd_test::WriteFileBytes(prefix + L"20240301.log", "");
  EXPECT_EQ(latest(), prefix + L"20240301.log");
}

}  // namespace
