// The daily result file.
#include "uploader/result_file.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "logtree/log_tree.h"
#include "platform/file.h"
#include "platform/text.h"
#include "tests/unit/support/failing_memory.h"
#include "tests/unit/support/failing_seek.h"
#include "tests/unit/support/fake_clock.h"
#include "tests/unit/support/log_capture.h"
#include "tests/unit/support/program_texts.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using kyd::UploadResultReport;

constexpr wchar_t kHead[] =
    L"<< Upload Result >>\r\n"
    L" [Execution time]\r\n"
    L"   2024:03:05 14:07:09\r\n"
    L"\r\n"
    L" [User folder information]\r\n"
    L"   Number of folders (users)\r\n"
    L"      Total                   : 5\r\n"
    L"      Upload target           : 4\r\n"
    L"      Not subject to upload   : 1\r\n"
    L"   Number of log files\r\n"
    L"      Upload success  : 12\r\n"
    L"      Upload error    : 3\r\n"
    L"\r\n";

const platform::LocalTime kTime{2024, 3, 5, 14, 7, 9, 42};

UploadResultReport Report() {
  UploadResultReport report;
  report.instance = kyd_test::ProgramTexts();
  return report;
}

std::wstring TextOf(const UploadResultReport& report, const std::wstring& log_dir) {
  return kyd::ResultText(report, log_dir, kTime, 5, 4, 1, 12, 3);
}

TEST(ResultText, HasNoErrorSectionWithoutErrors) {
  EXPECT_EQ(TextOf(Report(), L"C:\\logs"), std::wstring(kHead) + L"\r\n\r\n");
}

TEST(ResultText, ListsAccountsWithErrorsInInsertionOrder) {
  UploadResultReport report = Report();
  kyd::AddUploadErrInfo(report, L"alice", 2);
  kyd::AddUploadErrInfo(report, L"bob", 1);
  EXPECT_EQ(TextOf(report, L"C:\\logs"),
            std::wstring(kHead) +
                L" [Error file information]\r\n"
                L"   Upload folder path : C:\\logs\r\n"
                L"   Upload errors occurred [Folder / Number of errors]\r\n"
                L"           [alice / 2]\r\n"
                L"           [bob / 1]\r\n"
                L"\r\n\r\n");
}

TEST(ResultText, TruncatesAnErrorLineAt259Characters) {
  UploadResultReport report = Report();
  kyd::AddUploadErrInfo(report, std::wstring(255, L'a'), 7);
  const std::wstring text = TextOf(report, L"d");
  const std::wstring line = L"           [" + std::wstring(247, L'a');
  ASSERT_EQ(line.size(), 259U);
  EXPECT_EQ(text.substr(text.size() - 4 - line.size()), line + L"\r\n\r\n");
}

TEST(ResultText, TruncatesALongLogFolderAt2047Characters) {
  UploadResultReport report = Report();
  kyd::AddUploadErrInfo(report, L"a", 1);
  const std::wstring text = TextOf(report, std::wstring(5000, L'd'));
  const std::wstring tail = L"           [a / 1]\r\n\r\n\r\n";
  EXPECT_EQ(text.size(), std::wstring(kHead).size() + 2047 + tail.size());
}

class OutputResultTest : public testing::Test {
 protected:
  OutputResultTest() { clock_.local = kTime; }

  void Output(std::uint32_t ok, std::uint32_t failed) {
    kyd::OutputResult(report_, folder_.Path(), 1, 1, 0, ok, failed, clock_);
  }

  [[nodiscard]] std::string Expected(std::uint32_t ok, std::uint32_t failed) const {
    const auto bytes = platform::ToUtf16Le(
        kyd::ResultText(report_, folder_.Path(), clock_.local, 1, 1, 0, ok, failed));
    return {bytes.begin(), bytes.end()};
  }

  [[nodiscard]] std::wstring Path() const {
    return kyd::LogTree(folder_.Path()).ResultPath(clock_.local);
  }

  kyd_test::TempFolder folder_;
  kyd_test::FakeClock clock_;
  UploadResultReport report_ = Report();
};

TEST_F(OutputResultTest, AppendsTheBlocksOfADayToOneFileWithoutByteOrderMark) {
  folder_.MakeFolder(L"UploadResult");
  Output(1, 0);
  Output(0, 2);
  EXPECT_EQ(kyd_test::ReadFileBytes(Path()), Expected(1, 0) + Expected(0, 2));
}

TEST_F(OutputResultTest, StartsANewFileWithANewDay) {
  folder_.MakeFolder(L"UploadResult");
  Output(1, 0);
  const std::wstring first = Path();
  clock_.local.day = 6;
  Output(1, 0);
  EXPECT_NE(first, Path());
  EXPECT_EQ(kyd_test::ReadFileBytes(Path()), Expected(1, 0));
}

TEST_F(OutputResultTest, CreatesNoFileIfNoFilesWereCounted) {
  folder_.MakeFolder(L"UploadResult");
  Output(0, 0);
  EXPECT_FALSE(kyd_test::PathExists(Path()));
}

TEST_F(OutputResultTest, CreatesNoFolder) {
  Output(1, 1);
  EXPECT_FALSE(kyd_test::PathExists(folder_ / L"UploadResult"));
}

TEST_F(OutputResultTest, LeavesAFileThatAnotherProcessIsWriting) {
  folder_.MakeFolder(L"UploadResult");
  kyd_test::WriteFileBytes(Path(), "theirs");
  const platform::File other = platform::File::OpenExclusive(Path());
  ASSERT_TRUE(other.IsOpen());
  Output(1, 0);
  EXPECT_EQ(platform::File::OpenShared(Path()).IsOpen(), false);
}

TEST_F(OutputResultTest, WritesNothingWhenItsEndCannotBeFound) {
  folder_.MakeFolder(L"UploadResult");
  Output(1, 0);
  kyd_test::RunWithoutSeeking([this] { Output(0, 2); });
  EXPECT_EQ(kyd_test::ReadFileBytes(Path()), Expected(1, 0));
}

// A clock that advances by a day, an hour and a second with each reading.
class RunningClock : public kyd_test::FakeClock {
 public:
  [[nodiscard]] platform::LocalTime Local() const override {
    const platform::LocalTime now = local_;
    ++local_.day;
    ++local_.hour;
    ++local_.second;
    ++looks_;
    return now;
  }
  [[nodiscard]] int Looks() const { return looks_; }

 private:
  mutable platform::LocalTime local_ = kTime;
  mutable int looks_ = 0;
};

TEST_F(OutputResultTest, UsesOneTimeForTextAndName) {
  folder_.MakeFolder(L"UploadResult");
  const RunningClock clock;
  kyd::OutputResult(report_, folder_.Path(), 1, 1, 0, 1, 0, clock);
  EXPECT_EQ(clock.Looks(), 1);
  EXPECT_EQ(kyd_test::ReadFileBytes(Path()), Expected(1, 0));
}

TEST_F(OutputResultTest, WritesIfFilesWereOnlySentOrOnlyRefused) {
  folder_.MakeFolder(L"UploadResult");
  Output(0, 1);
  EXPECT_EQ(kyd_test::ReadFileBytes(Path()), Expected(0, 1));
  Output(1, 0);
  EXPECT_EQ(kyd_test::ReadFileBytes(Path()), Expected(0, 1) + Expected(1, 0));
}

TEST_F(OutputResultTest, LogsNothingIfTheFileCannotBeOpened) {
  const kyd_test::LogCapture log;
  Output(1, 1);
  folder_.MakeFolder(L"UploadResult");
  ASSERT_TRUE(platform::CreateFolders(Path()));
  Output(1, 1);
  EXPECT_TRUE(log.Messages().empty());
}

TEST_F(OutputResultTest, LogsAnyException) {
  using kyd_test::FailingMemory;
  for (const auto what : {FailingMemory::Throwing::kBadAlloc, FailingMemory::Throwing::kNumber}) {
    const kyd_test::LogCapture log;
    const std::wstring long_path(FailingMemory::kLongText, L'd');
    {
      const FailingMemory failing(what, FailingMemory::kBeyondTheLog);
      kyd::OutputResult(report_, long_path, 1, 1, 0, 1, 0, clock_);
    }
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"<OutputResult> exception"});
  }
}

}  // namespace
