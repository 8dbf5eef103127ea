// The blocks in these tests are written by the uploader's own code.
#include "status/result_reader.h"

#include <gtest/gtest.h>

#include "platform/text.h"
#include "tests/unit/support/program_texts.h"
#include "uploader/result_file.h"

namespace {

using kyd::DayResult;
using Errors = std::map<std::wstring, std::uint64_t>;

std::wstring Block(std::uint32_t sent, std::uint32_t failed,
                   const std::vector<kyd::UploadErrInfo>& errors = {},
                   const std::wstring& log_dir = L"C:\\logs") {
  kyd::UploadResultReport report;
  report.instance = kyd_test::ProgramTexts();
  report.errors = errors;
  return kyd::ResultText(report, log_dir, {2024, 3, 5, 14, 7, 9, 42}, 5, 4, 1, sent, failed);
}

DayResult Read(const std::wstring& text) {
  const std::vector<std::uint8_t> bytes = platform::ToUtf16Le(text);
  kyd::ResultReader reader;
  reader.Take(bytes.data(), bytes.size());
  return reader.Finish();
}

TEST(ResultReader, FindsNothingInEmptyInput) {
  const DayResult day = Read(L"");
  EXPECT_EQ(day.runs, 0U);
  EXPECT_EQ(day.unfinished_blocks, 0U);
  EXPECT_EQ(day.last_run, L"");
}

TEST(ResultReader, AddsTheRunsOfADay) {
  const DayResult day =
      Read(Block(12, 3, {{L"alice", 2}, {L"bob", 1}}) + Block(7, 0) + Block(0, 4, {{L"alice", 4}}));
  EXPECT_EQ(day.runs, 3U);
  EXPECT_EQ(day.folders, 5U);
  EXPECT_EQ(day.sent, 19U);
  EXPECT_EQ(day.errors, 7U);
  EXPECT_EQ(day.errors_by_account, (Errors{{L"alice", 6}, {L"bob", 1}}));
  EXPECT_EQ(day.unfinished_blocks, 0U);
  EXPECT_EQ(day.strange_lines, 0U);
  EXPECT_EQ(day.last_run, L"14:07:09");
  EXPECT_EQ(day.last_run_sent, 0U);
  EXPECT_EQ(day.last_run_errors, 4U);
}

TEST(ResultReader, AcceptsSingleBytes) {
  const std::vector<std::uint8_t> bytes =
      platform::ToUtf16Le(Block(1, 1, {{L"\x00E4\x20AC\U0001F600", 1}}));
  kyd::ResultReader reader;
  for (const std::uint8_t byte : bytes) {
    reader.Take(&byte, 1);
  }
  EXPECT_EQ(reader.Finish().errors_by_account, (Errors{{L"\x00E4\x20AC\U0001F600", 1}}));
}

TEST(ResultReader, ReadsCountersAboveTheSignedRange) {
  EXPECT_EQ(Read(Block(4'000'000'000U, 1)).sent, 4'000'000'000U);
}

TEST(ResultReader, ReadsNamesThatLookLikeTheBlock) {
  EXPECT_EQ(Read(Block(0, 3, {{L"a / 1]", 2}, {L"[", 1}})).errors_by_account,
            (Errors{{L"a / 1]", 2}, {L"[", 1}}));
}

// Truncates a block at every position.
TEST(ResultReader, CountsATruncatedBlockIfItHasItsNumbers) {
  const std::wstring whole = Block(12, 3, {{L"alice", 2}, {L"bob", 1}});
  const std::wstring before = Block(1, 0);
  const std::size_t counts = whole.find(L"Upload error    : 3\r\n") + 21 + 2;
  for (std::size_t size = 1; size < whole.size(); ++size) {
    const DayResult day = Read(before + whole.substr(0, size));
    const bool counted = size >= counts;
    EXPECT_EQ(day.runs, counted ? 2U : 1U) << size;
    EXPECT_EQ(day.sent, counted ? 13U : 1U) << size;
    EXPECT_EQ(day.unfinished_blocks, 1U) << size;
    EXPECT_EQ(day.strange_lines, 0U) << size;
  }
}

TEST(ResultReader, ReadsTheBlockAfterATruncatedOne) {
  const std::wstring whole = Block(12, 3, {{L"alice", 3}});
  for (std::size_t size = 1; size < whole.size(); size += 7) {
    const DayResult day = Read(whole.substr(0, size) + L"\r\n" + Block(5, 0));
    EXPECT_GE(day.sent, 5U) << size;
    EXPECT_LE(day.unfinished_blocks, 1U) << size;
  }
}

TEST(ResultReader, IgnoresATrailingOddByte) {
  std::vector<std::uint8_t> bytes = platform::ToUtf16Le(Block(5, 0));
  bytes.push_back('x');
  kyd::ResultReader reader;
  reader.Take(bytes.data(), bytes.size());
  EXPECT_EQ(reader.Finish().sent, 5U);
}

TEST(ResultReader, SkipsForeignText) {
  const DayResult day = Read(L"somebody's line\r\n\r\n" + Block(5, 0) + L"and another\nthird\n");
  EXPECT_EQ(day.sent, 5U);
  EXPECT_EQ(day.strange_lines, 3U);
  EXPECT_EQ(day.unfinished_blocks, 0U);
}

TEST(ResultReader, SurvivesAnEndlessLine) {
  const DayResult day = Read(std::wstring(1'000'000, L'<') + L"\r\n" + Block(5, 0));
  EXPECT_EQ(day.sent, 5U);
  EXPECT_EQ(day.strange_lines, 1U);
}

TEST(ResultReader, KeepsTheOtherNamesWhenOneIsTruncated) {
  const std::wstring long_name(255, L'a');
  const DayResult day = Read(Block(0, 6, {{L"alice", 1}, {long_name, 2}, {L"bob", 3}}) +
                             Block(0, 2, {{long_name, 2}}) + Block(5, 0));
  EXPECT_EQ(day.runs, 3U);
  EXPECT_EQ(day.errors, 8U);
  // The line after the truncated one has no start of its own.
  EXPECT_EQ(day.errors_by_account, (Errors{{L"alice", 1}}));
  EXPECT_EQ(day.unfinished_blocks, 0U);
}

TEST(ResultReader, ReadsTheAccountsAfterATruncatedLogDirectory) {
  const DayResult day =
      Read(Block(0, 3, {{L"alice", 1}, {L"bob", 2}}, std::wstring(5000, L'd')) + Block(5, 0));
  EXPECT_EQ(day.runs, 2U);
  EXPECT_EQ(day.errors, 3U);
  EXPECT_EQ(day.errors_by_account, (Errors{{L"bob", 2}}));
  EXPECT_EQ(day.unfinished_blocks, 0U);
}

}  // namespace
