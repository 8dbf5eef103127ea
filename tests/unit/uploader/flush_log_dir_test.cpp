// The force flush of one account, and of all.
#include "uploader/flush_log_dir.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/file.h"
#include "platform/text.h"
#include "tests/unit/support/log_capture.h"
#include "tests/unit/support/program_texts.h"
#include "tests/unit/support/temp_folder.h"

namespace {

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
  const std::string ruler = "<< ------------------------------------------------------------ >>";
  EXPECT_EQ(
      log_.Messages(),
      (std::vector<std::string>{ruler, "<< Result >> accounts:[0] send :[0] no send :[0]", ruler}));
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
  EXPECT_EQ(log_.Messages()[1], "<Cleanup MOVE> Move NG [3]");
  EXPECT_EQ(kyd_test::ReadFileBytes(Path({L"Upload", L"alice", L"a.log"})), "a");
}

TEST_F(FlushLogDirTest, ForceFlushDoesNotEnterTheReservedFolder) {
  MakeFile({L"Upload", L"NoSent_LogFiles", L"a.log"}, "a");
  ASSERT_TRUE(platform::CreateFolders(Path({L"Archive", L"NoSent_LogFiles"})));
  kyd::SearchUploadDir(run_);
  EXPECT_EQ(log_.Messages(),
            (std::vector<std::string>{"<< SearchUploadDir >> start", "<< SearchUploadDir >> end"}));
}

}  // namespace
