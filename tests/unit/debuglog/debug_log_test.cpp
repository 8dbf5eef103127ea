// Lines, pending lines and rotation of one logger.
#include "debuglog/debug_log.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "debuglog/format.h"
#include "platform/file.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "tests/unit/support/fake_clock.h"
#include "tests/unit/support/temp_folder.h"
#include "tests/unit/support/test_registry.h"

namespace {

constexpr wchar_t kKey[] = L"SOFTWARE\\Veltrane\\Veltrane Keyward\\Corvid";
constexpr char kMark[] = "\xEF\xBB\xBF";

std::uint32_t PlainAccess() {
  return platform::kRegistryRead;
}
std::optional<std::wstring> NoBase() {
  return std::nullopt;
}

class DebugLogTest : public testing::Test {
 protected:
  DebugLogTest() {
    registry_.SetDword(kKey, L"OutputLog", 16);
    registry_.SetText(kKey, L"OutputLogDir", folder_.Path());
    log_ = std::make_unique<corvid::DebugLog>(L"test.log", 16, Surroundings());
  }

  [[nodiscard]] corvid::LogSurroundings Surroundings() const {
    return {&clock_, &NoBase, &PlainAccess};
  }

  [[nodiscard]] std::wstring LogFolder() const { return folder_ / L"DebugSSO"; }
  [[nodiscard]] std::wstring LogPath() const {
    return LogFolder() + platform::kPathSeparator + L"test.log";
  }
  [[nodiscard]] std::wstring BackupPath() const { return LogPath() + L".bak"; }

  // What the file holds after the mark.
  [[nodiscard]] std::string Text() const {
    const std::string bytes = kyd_test::ReadFileBytes(LogPath());
    EXPECT_EQ(bytes.substr(0, 3), kMark);
    return bytes.substr(3);
  }

  [[nodiscard]] std::string Line(const wchar_t* message) const {
    return platform::ToUtf8(corvid::LogLine(clock_.local, message)) + "\r\n";
  }

  // Makes the log impossible to open by putting a folder in its place.
  void BlockLog() const {
    static_cast<void>(platform::RemoveFile(LogPath()));
    ASSERT_TRUE(platform::CreateFolders(LogPath()));
  }
  void UnblockLog() const {
    ASSERT_TRUE(platform::MoveWithoutReplacing(LogPath(), folder_ / L"moved away"));
  }

  kyd_test::FakeClock clock_;
  kyd_test::TempFolder folder_;
  kyd_test::TestRegistry registry_;
  std::unique_ptr<corvid::DebugLog> log_;
};

TEST(LogLine, HasPrefixMessageAndTrailingComma) {
  const platform::LocalTime time{2024, 5, 1, 9, 3, 7, 42};
  const std::wstring expected = kyd::FormatBounded(
      256, L"2024/05/01T09:03:07.042, SID:%06d, PID:%06d, TID:%06d, <DeleteAuthFile> failed.,",
      platform::SessionId(), platform::ProcessId(), platform::ThreadId());
  EXPECT_EQ(corvid::LogLine(time, L"<DeleteAuthFile> failed."), expected);
}

TEST(LogLine, HasNoMessageForNull) {
  const std::wstring line = corvid::LogLine({}, nullptr);
  EXPECT_EQ(line.substr(line.size() - 3), L", ,");
}

TEST(RotationCheckIsDue, EveryTenSeconds) {
  EXPECT_FALSE(corvid::RotationCheckIsDue(1009, 1000));
  EXPECT_TRUE(corvid::RotationCheckIsDue(1010, 1000));
}

TEST_F(DebugLogTest, WritesMarkAndLinesInOrder) {
  log_->WriteLine(L"one");
  log_->WriteLine(L"zw\u00F6lf");
  EXPECT_EQ(Text(), Line(L"one") + Line(L"zw\u00F6lf"));
}

TEST_F(DebugLogTest, NamesItsFileKydLogWhenNoneIsGiven) {
  corvid::DebugLog unnamed(L"", 16, Surroundings());
  unnamed.WriteLine(L"here");
  EXPECT_TRUE(kyd_test::PathExists(LogFolder() + platform::kPathSeparator + L"kyd.log"));
}

TEST_F(DebugLogTest, WritesAndKeepsNothingWhileDisabled) {
  registry_.SetDword(kKey, L"OutputLog", 1);
  log_->WriteLine(L"lost");
  EXPECT_FALSE(kyd_test::PathExists(LogFolder()));
  registry_.SetDword(kKey, L"OutputLog", 16);
  clock_.seconds += 2;
  log_->WriteLine(L"written");
  EXPECT_EQ(Text(), Line(L"written"));
}

TEST_F(DebugLogTest, NoticesThatItIsSwitchedOnAfterTwoSeconds) {
  registry_.SetDword(kKey, L"OutputLog", 0);
  log_->WriteLine(L"off");
  registry_.SetDword(kKey, L"OutputLog", 16);
  clock_.seconds += 1;
  log_->ReloadSettings();
  EXPECT_FALSE(log_->IsEnabled());
  clock_.seconds += 1;
  log_->ReloadSettings();
  EXPECT_TRUE(log_->IsEnabled());
}

TEST_F(DebugLogTest, NoticesThatItIsSwitchedOffAfterTenSeconds) {
  log_->WriteLine(L"on");
  registry_.SetDword(kKey, L"OutputLog", 0);
  clock_.seconds += 9;
  log_->WriteLine(L"still on");
  clock_.seconds += 1;
  log_->WriteLine(L"off");
  EXPECT_EQ(Text(), Line(L"on") + Line(L"still on"));
}

TEST_F(DebugLogTest, KeepsLinesThatCannotBeWrittenWithTheirTime) {
  log_->WriteLine(L"before");
  BlockLog();
  const std::string kept = Line(L"kept");
  log_->WriteLine(L"kept");
  UnblockLog();
  clock_.local.minute = 4;
  log_->WriteLine(L"after");
  EXPECT_EQ(Text(), kept + Line(L"after"));
}

TEST_F(DebugLogTest, DropsTheOldestOfMoreThanAHundredPendingLines) {
  log_->ReloadSettings();
  BlockLog();
  for (int i = 1; i <= 101; ++i) {
    log_->WriteLine(std::to_wstring(i).c_str());
  }
  UnblockLog();
  log_->FlushPending();
  std::string expected;
  for (int i = 2; i <= 101; ++i) {
    expected += Line(std::to_wstring(i).c_str());
  }
  EXPECT_EQ(Text(), expected);
}

TEST_F(DebugLogTest, KeepsPendingLinesWhenTheFlushFails) {
  log_->ReloadSettings();
  BlockLog();
  log_->WriteLine(L"kept");
  log_->FlushPending();
  UnblockLog();
  log_->FlushPending();
  EXPECT_EQ(Text(), Line(L"kept"));
}

TEST_F(DebugLogTest, WritesPendingLinesAtItsEnd) {
  log_->ReloadSettings();
  BlockLog();
  log_->WriteLine(L"kept");
  UnblockLog();
  log_.reset();
  EXPECT_EQ(Text(), Line(L"kept"));
}

TEST_F(DebugLogTest, MakesTheFolderAgainAtTheNextDueRead) {
  log_->WriteLine(L"first");
  ASSERT_TRUE(platform::MoveWithoutReplacing(LogFolder(), folder_ / L"gone"));
  log_->WriteLine(L"kept");
  EXPECT_FALSE(kyd_test::PathExists(LogFolder()));
  clock_.seconds += 10;
  log_->WriteLine(L"second");
  EXPECT_EQ(Text(), Line(L"kept") + Line(L"second"));
}

TEST_F(DebugLogTest, MovesAFileOfExactlyTheLimitAside) {
  const std::size_t size = 3 + Line(L"x").size();
  registry_.SetDword(kKey, L"OutputLogSize", static_cast<std::uint32_t>(size));
  log_->WriteLine(L"x");
  EXPECT_FALSE(kyd_test::PathExists(LogPath()));
  EXPECT_EQ(kyd_test::ReadFileBytes(BackupPath()), kMark + Line(L"x"));
}

TEST_F(DebugLogTest, LeavesAFileOneByteBelowTheLimit) {
  const std::size_t size = 3 + Line(L"x").size() + 1;
  registry_.SetDword(kKey, L"OutputLogSize", static_cast<std::uint32_t>(size));
  log_->WriteLine(L"x");
  EXPECT_EQ(Text(), Line(L"x"));
}

TEST_F(DebugLogTest, LooksAtTheSizeOnceInTenSeconds) {
  log_->WriteLine(L"starts the ten seconds");
  registry_.SetDword(kKey, L"OutputLogSize", 1);
  clock_.seconds += 9;
  log_->WriteLine(L"too early");
  EXPECT_FALSE(kyd_test::PathExists(BackupPath()));
  clock_.seconds += 1;
  log_->WriteLine(L"due");
  EXPECT_TRUE(kyd_test::PathExists(BackupPath()));
  EXPECT_FALSE(kyd_test::PathExists(LogPath()));
}

TEST_F(DebugLogTest, ReplacesTheOlderBackup) {
  registry_.SetDword(kKey, L"OutputLogSize", 1);
  log_->WriteLine(L"one");
  clock_.seconds += 10;
  log_->WriteLine(L"two");
  EXPECT_EQ(kyd_test::ReadFileBytes(BackupPath()), kMark + Line(L"two"));
}

TEST_F(DebugLogTest, SkipsTheCheckOfANullPath) {
  log_->RotateIfNeeded(nullptr);
  EXPECT_FALSE(kyd_test::PathExists(BackupPath()));
}

}  // namespace
