// The upload of all accounts, and the force flush of one account and of all.
#include "uploader/flush_log_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/file.h"
#include "platform/text.h"
#include "tests/unit/support/failing_memory.h"
#include "tests/unit/support/log_capture.h"
#include "tests/unit/support/program_texts.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using kyd_test::FailingMemory;
using Lines = std::vector<std::string>;

constexpr char kRuler[] = "<< ------------------------------------------------------------ >>";

std::int32_t ThrowStandard(const std::uint8_t* /*data*/, std::uint64_t /*size*/,
                           std::wstring* /*plaintext*/) {
  throw std::runtime_error("out of luck");
}

class FlushLogDirTest : public testing::Test {
 protected:
  FlushLogDirTest() {
    run_.logDir = folder_.Path();
    run_.report.instance = kyd_test::ProgramTexts();
  }

  [[nodiscard]] std::wstring Path(const std::vector<std::wstring>& parts) const {
    std::wstring path = folder_.Path();
    for (const std::wstring& part : parts) {
      path += platform::kPathSeparator + part;
    }
    return path;
  }

  void MakeFile(const std::vector<std::wstring>& parts, const std::string& bytes) const {
    std::vector<std::wstring> folder(parts.begin(), parts.end() - 1);
    static_cast<void>(platform::CreateFolders(Path(folder)));
    kyd_test::WriteFileBytes(Path(parts), bytes);
  }

  // Returns the block in the result file as narrow text.
  [[nodiscard]] std::string ResultFile() const {
    std::string text;
    for (const auto& entry :
         std::filesystem::directory_iterator(platform::ToNativePath(Path({L"UploadResult"})))) {
      for (const char byte :
           kyd_test::ReadFileBytes(platform::FromNativePath(entry.path().native()))) {
        text += byte == '\0' ? "" : std::string(1, byte);
      }
    }
    return text;
  }

  kyd_test::TempFolder folder_;
  kyd::UploadRun run_;
  kyd_test::LogCapture log_;
};

TEST_F(FlushLogDirTest, CountsFoldersAsAccountsExceptTheReservedOne) {
  MakeFile({L"Upload", L"x.log"}, "");
  MakeFile({L"Upload", L"NoSent_LogFiles", L"a.log"}, "");
  MakeFile({L"Upload", L"alice", L"a.log"}, "");
  MakeFile({L"Upload", L"nosent_logfiles2", L"a.log"}, "");
  kyd::FlushLogDir(run_, /*force=*/false);
  EXPECT_EQ(run_.accountCount, 2U);
  EXPECT_EQ(run_.noSendCount, 2U);  // neither has credentials
}

TEST_F(FlushLogDirTest, LogsZerosWithoutAnUploadFolder) {
  kyd::FlushLogDir(run_, /*force=*/false);
  EXPECT_EQ(log_.Messages(),
            (std::vector<std::string>{kRuler, "<< Result >> accounts:[0] send :[0] no send :[0]",
                                      kRuler}));
}

TEST_F(FlushLogDirTest, ForceFlushMovesWaitingFilesWithBakAppended) {
  MakeFile({L"Upload", L"alice", L"a.log"}, "a");
  MakeFile({L"Upload", L"alice", L"B.LOG"}, "b");
  MakeFile({L"Upload", L"alice", L"c.txt"}, "c");
  ASSERT_TRUE(platform::CreateFolders(Path({L"Archive", L"alice"})));
  kyd::FlushLogDir(run_, /*force=*/true);
  EXPECT_EQ(kyd_test::ReadFileBytes(Path({L"Archive", L"alice", L"a.log.bak"})), "a");
  EXPECT_EQ(kyd_test::ReadFileBytes(Path({L"Archive", L"alice", L"B.LOG.bak"})), "b");
  EXPECT_EQ(kyd_test::ReadFileBytes(Path({L"Upload", L"alice", L"c.txt"})), "c");
}

TEST_F(FlushLogDirTest, ForceFlushNeverReplacesAnArchivedFile) {
  MakeFile({L"Upload", L"alice", L"a.log"}, "new");
  MakeFile({L"Archive", L"alice", L"a.log.bak"}, "old");
  EXPECT_EQ(kyd::CleanupUploadDir(run_, L"alice"), 0);
  EXPECT_EQ(log_.Messages(), (std::vector<std::string>{"<CleanupUploadDir> start [alice]",
                                                       "<Cleanup MOVE> Move NG [183]",
                                                       "<CleanupUploadDir> end [alice]"}));
  EXPECT_EQ(kyd_test::ReadFileBytes(Path({L"Upload", L"alice", L"a.log"})), "new");
  EXPECT_EQ(kyd_test::ReadFileBytes(Path({L"Archive", L"alice", L"a.log.bak"})), "old");
}

TEST_F(FlushLogDirTest, ForceFlushLeavesFilesWithoutAnArchiveFolder) {
  MakeFile({L"Upload", L"alice", L"a.log"}, "a");
  EXPECT_EQ(kyd::CleanupUploadDir(run_, L"alice"), 0);
  EXPECT_EQ(log_.Messages(),
            (Lines{"<CleanupUploadDir> start [alice]", "<Cleanup MOVE> Move NG [3]",
                   "<CleanupUploadDir> end [alice]"}));
  EXPECT_EQ(kyd_test::ReadFileBytes(Path({L"Upload", L"alice", L"a.log"})), "a");
}

TEST_F(FlushLogDirTest, ForceFlushDoesNotEnterTheReservedFolder) {
  MakeFile({L"Upload", L"NoSent_LogFiles", L"a.log"}, "a");
  ASSERT_TRUE(platform::CreateFolders(Path({L"Archive", L"NoSent_LogFiles"})));
  kyd::SearchUploadDir(run_);
  EXPECT_EQ(log_.Messages(),
            (std::vector<std::string>{"<< SearchUploadDir >> start", "<< SearchUploadDir >> end"}));
}

TEST_F(FlushLogDirTest, StopsAtCredentialsThatEndTheRun) {
  for (const wchar_t* const account : {L"alice", L"bob", L"carol"}) {
    MakeFile({L"Upload", account, L"a.log"}, "a");
    MakeFile({L"LogWork", account, L"UserData.dat"}, "sealed");
  }
  ASSERT_TRUE(platform::CreateFolders(Path({L"UploadResult"})));
  run_.decryptEntry = &ThrowStandard;
  run_.fileOkCount = 1;  // so that there is something to report
  kyd::FlushLogDir(run_, /*force=*/false);
  EXPECT_EQ(log_.Messages(),
            (Lines{kRuler, "<Read AuthFile> exception", "<< Upload >> EXCEPTION", kRuler}));
  EXPECT_EQ(run_.noSendCount, 0U);
  // The account is counted before its credentials are read, and the report is written.
  EXPECT_NE(ResultFile().find("Total                   : 1\r\n"), std::string::npos);
}

TEST_F(FlushLogDirTest, ContinuesAfterUnusableCredentials) {
  for (const wchar_t* const account : {L"alice", L"bob", L"carol"}) {
    MakeFile({L"Upload", account, L"a.log"}, "a");
  }
  kyd::FlushLogDir(run_, /*force=*/false);
  EXPECT_EQ(log_.Messages(),
            (Lines{kRuler, "<Read AuthFile> CreateFile error (3)",
                   "<Read AuthFile> CreateFile error (3)", "<Read AuthFile> CreateFile error (3)",
                   "<< Result >> accounts:[3] send :[0] no send :[3]", kRuler}));
}

TEST_F(FlushLogDirTest, ReportsEvenIfTheUploadFolderCannotBeSearched) {
  ASSERT_TRUE(platform::CreateFolders(Path({L"UploadResult"})));
  run_.fileErrorCount = 1;
  kyd::FlushLogDir(run_, /*force=*/false);
  EXPECT_NE(ResultFile().find("Upload error    : 1\r\n"), std::string::npos);
  EXPECT_EQ(log_.Messages(), (Lines{kRuler, "<< Result >> accounts:[0] send :[0] no send :[0]",
                                    "<< Result >> files send ok:[0] send error:[1]", kRuler}));
}

TEST_F(FlushLogDirTest, LogsAnyExceptionSkipsTheReportAndStillFlushes) {
  // Building any path below this folder fails; so would the report.
  run_.logDir = std::wstring(FailingMemory::kLongText, L'd');
  run_.fileOkCount = 1;
  for (const auto& one : FailingMemory::kBoth) {
    const kyd_test::LogCapture log;
    {
      const FailingMemory failing(one.what, FailingMemory::kBeyondTheLog);
      kyd::FlushLogDir(run_, /*force=*/true);
    }
    EXPECT_EQ(log.Messages(), (Lines{kRuler, std::string("<FlushLogDir> exception") + one.ending,
                                     "<< SearchUploadDir >> start",
                                     std::string("<SearchUploadDir> exception") + one.ending,
                                     "<< Upload >> EXCEPTION", kRuler}));
  }
}

TEST_F(FlushLogDirTest, CleanupLogsAnyExceptionAndReturnsZero) {
  run_.logDir = std::wstring(FailingMemory::kLongText, L'd');
  const struct {
    FailingMemory::Throwing what;
    std::string line;
  } cases[] = {{FailingMemory::Throwing::kBadAlloc, "<CleanupUploadDir> exception [alice]"},
               {FailingMemory::Throwing::kNumber, "<CleanupUploadDir> exception etc[alice]"}};
  for (const auto& one : cases) {
    const kyd_test::LogCapture log;
    {
      const FailingMemory failing(one.what, FailingMemory::kBeyondTheLog);
      EXPECT_EQ(kyd::CleanupUploadDir(run_, L"alice"), 0);
    }
    EXPECT_EQ(log.Messages(), (Lines{"<CleanupUploadDir> start [alice]", one.line}));
  }
}

TEST_F(FlushLogDirTest, ForceFlushContinuesAfterAFileThatCannotBeMoved) {
  MakeFile({L"Upload", L"alice", L"a.log"}, "new a");
  MakeFile({L"Upload", L"alice", L"b.log"}, "b");
  MakeFile({L"Upload", L"alice", L"c.log"}, "new c");
  MakeFile({L"Archive", L"alice", L"a.log.bak"}, "old a");
  MakeFile({L"Archive", L"alice", L"c.log.bak"}, "old c");
  EXPECT_EQ(kyd::CleanupUploadDir(run_, L"alice"), 0);
  const Lines lines = log_.Messages();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "<Cleanup MOVE> Move NG [183]"), 2);
  EXPECT_EQ(kyd_test::ReadFileBytes(Path({L"Archive", L"alice", L"b.log.bak"})), "b");
  EXPECT_EQ(lines.back(), "<CleanupUploadDir> end [alice]");
}

TEST_F(FlushLogDirTest, ForceFlushCountsNothing) {
  MakeFile({L"Upload", L"alice", L"a.log"}, "a");
  ASSERT_TRUE(platform::CreateFolders(Path({L"Archive", L"alice"})));
  kyd::SearchUploadDir(run_);
  EXPECT_EQ(run_.accountCount + run_.sendCount + run_.noSendCount + run_.fileOkCount +
                run_.fileErrorCount,
            0U);
  EXPECT_EQ(kyd_test::ReadFileBytes(Path({L"Archive", L"alice", L"a.log.bak"})), "a");
}

}  // namespace
