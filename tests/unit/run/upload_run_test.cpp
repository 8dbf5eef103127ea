// The run object and its record of accounts with failed files.
#include "run/upload_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/unit/support/failing_memory.h"
#include "tests/unit/support/log_capture.h"
#include "tests/unit/support/upload_err_info.h"

namespace {

using kyd_test::FailingMemory;
using kyd_test::IsRecord;
using testing::ElementsAre;

TEST(UploadRun, StartsWithNothingCountedAndNothingBound) {
  const kyd::UploadRun run;
  EXPECT_EQ(run.accountCount, 0U);
  EXPECT_EQ(run.sendCount, 0U);
  EXPECT_EQ(run.noSendCount, 0U);
  EXPECT_EQ(run.fileOkCount, 0U);
  EXPECT_EQ(run.fileErrorCount, 0U);
  EXPECT_EQ(run.userAgent, L"");
  EXPECT_FALSE(run.companionModule.IsValid());
  EXPECT_EQ(run.decryptEntry, nullptr);
  EXPECT_EQ(run.base64DecodeEntry, nullptr);
  EXPECT_EQ(run.eventLogEntry, nullptr);
  EXPECT_TRUE(run.report.errors.empty());
}

TEST(UploadRun, StartsWithAZeroedWorkBuffer) {
  const kyd::UploadRun run;
  EXPECT_EQ(run.workBuffer.size(), 260U);
  EXPECT_TRUE(std::all_of(run.workBuffer.begin(), run.workBuffer.end(),
                          [](wchar_t character) { return character == L'\0'; }));
  EXPECT_EQ(run.instance, nullptr);
}

TEST(AddUploadErrInfo, AppendsWithoutMergingOrSorting) {
  kyd::UploadResultReport report;
  kyd::AddUploadErrInfo(report, L"bob", 1);
  kyd::AddUploadErrInfo(report, L"alice", 2);
  kyd::AddUploadErrInfo(report, L"bob", 0xFFFFFFFF);
  EXPECT_THAT(report.errors, ElementsAre(IsRecord(L"bob", 1), IsRecord(L"alice", 2),
                                         IsRecord(L"bob", 0xFFFFFFFF)));
}

TEST(AddUploadErrInfo, LogsAnyExceptionAndDropsOnlyTheRecord) {
  const std::wstring folder(FailingMemory::kLongText, L'n');
  for (const auto what : {FailingMemory::Throwing::kBadAlloc, FailingMemory::Throwing::kNumber}) {
    const kyd_test::LogCapture log;
    kyd::UploadResultReport report;
    kyd::AddUploadErrInfo(report, L"alice", 1);
    {
      const FailingMemory failing(what, FailingMemory::kBeyondTheLog);
      kyd::AddUploadErrInfo(report, folder, 2);
    }
    kyd::AddUploadErrInfo(report, L"carol", 3);
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"<AddUploadErrInfo> exception"});
    EXPECT_THAT(report.errors, ElementsAre(IsRecord(L"alice", 1), IsRecord(L"carol", 3)));
  }
}

}  // namespace
