// Lines, pending lines and rotation of a logger.
#include "debuglog/debug_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

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

std::optional<std::wstring> BaseThatThrows() {
  throw std::bad_alloc();
}
std::optional<std::wstring> BaseThatThrowsANumber() {
  throw 1;
}

int registry_reads = 0;
std::uint32_t CountedAccess() {
  ++registry_reads;
  return platform::kRegistryRead;
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

  // Returns the content of the file after the byte order mark.
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
  std::wstring expected;
  std::wstring line;
  // On Linux the main thread has the number of its process; another thread does not.
  std::thread([&] {
    expected = kyd::FormatBounded(
        256, L"2024/05/01T09:03:07.042, SID:%06d, PID:%06d, TID:%06d, <DeleteAuthFile> failed.,",
        platform::SessionId(), platform::ProcessId(), platform::ThreadId());
    line = corvid::LogLine(time, L"<DeleteAuthFile> failed.");
  }).join();
  EXPECT_EQ(line, expected);
}

TEST(LogLine, PadsNumbersWithZerosAndNeverTruncatesThem) {
  constexpr int kLeast = std::numeric_limits<int>::min();
  const auto start = [](const platform::LocalTime& time) {
    const std::wstring line = corvid::LogLine(time, nullptr);
    return line.substr(0, line.find(L','));
  };
  EXPECT_EQ(start({1, 2, 3, 4, 5, 6, 7}), L"0001/02/03T04:05:06.007");
  EXPECT_EQ(start({9999, 12, 31, 23, 59, 60, 999}), L"9999/12/31T23:59:60.999");
  EXPECT_EQ(start({12345, 100, 0, -1, -22, kLeast, -1}), L"12345/100/00T-1:-22:-2147483648.-01");
  EXPECT_EQ(start({-1, -1, -1, -1, -1, -1, kLeast}), L"-001/-1/-1T-1:-1:-1.-2147483648");
}

TEST(LogLine, HasNoMessageForNull) {
  const std::wstring line = corvid::LogLine({}, nullptr);
  EXPECT_EQ(line.substr(line.size() - 3), L", ,");
}

TEST(RotationCheckIsDue, EveryTenSeconds) {
  EXPECT_FALSE(corvid::RotationCheckIsDue(1009, 1000));
  EXPECT_TRUE(corvid::RotationCheckIsDue(1010, 1000));
}

TEST_F(DebugLogTest, WritesByteOrderMarkAndLinesInOrder) {
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

TEST_F(DebugLogTest, NoticesWithinTwoSecondsThatItIsSwitchedOn) {
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

TEST_F(DebugLogTest, NoticesWithinTenSecondsThatItIsSwitchedOff) {
  log_->WriteLine(L"on");
  registry_.SetDword(kKey, L"OutputLog", 0);
  clock_.seconds += 9;
  log_->WriteLine(L"still on");
  clock_.seconds += 1;
  log_->WriteLine(L"off");
  EXPECT_EQ(Text(), Line(L"on") + Line(L"still on"));
}

TEST_F(DebugLogTest, IsDisabledUntilItsSettingsAreRead) {
  EXPECT_FALSE(log_->IsEnabled());
  log_->ReloadSettings();
  EXPECT_TRUE(log_->IsEnabled());
}

TEST_F(DebugLogTest, FindsAKeyThatIsCreatedLater) {
  registry_.RemoveKey(kKey);
  log_->WriteLine(L"lost");
  registry_.SetDword(kKey, L"OutputLog", 16);
  registry_.SetText(kKey, L"OutputLogDir", folder_.Path());
  clock_.seconds += 1;
  log_->WriteLine(L"lost as well");
  clock_.seconds += 1;
  log_->WriteLine(L"written");
  EXPECT_EQ(Text(), Line(L"written"));
}

TEST_F(DebugLogTest, ForgetsAValueThatIsRemoved) {
  registry_.SetDword(kKey, L"OutputLogSize", 1);
  log_->WriteLine(L"moved aside at once");
  EXPECT_TRUE(kyd_test::PathExists(BackupPath()));
  registry_.Remove(kKey, L"OutputLogSize");
  clock_.seconds += 10;
  log_->WriteLine(L"stays");
  EXPECT_EQ(Text(), Line(L"stays"));
}

TEST_F(DebugLogTest, ChangesItsFolderAtTheNextDueRead) {
  log_->WriteLine(L"old place");
  const std::wstring other = folder_.MakeFolder(L"other");
  registry_.SetText(kKey, L"OutputLogDir", other);
  clock_.seconds += 9;
  log_->WriteLine(L"still the old place");
  EXPECT_EQ(Text(), Line(L"old place") + Line(L"still the old place"));
  clock_.seconds += 1;
  log_->WriteLine(L"new place");
  const std::wstring separator(1, platform::kPathSeparator);
  EXPECT_EQ(kyd_test::ReadFileBytes(other + separator + L"DebugSSO" + separator + L"test.log"),
            kMark + Line(L"new place"));
}

TEST_F(DebugLogTest, RetriesToCreateItsFolderAfterTwoSeconds) {
  kyd_test::WriteFileBytes(LogFolder(), "in the way");
  log_->WriteLine(L"lost");
  EXPECT_FALSE(log_->IsEnabled());
  ASSERT_TRUE(platform::RemoveFile(LogFolder()));
  clock_.seconds += 1;
  log_->WriteLine(L"lost as well");
  EXPECT_FALSE(kyd_test::PathExists(LogFolder()));
  clock_.seconds += 1;
  log_->WriteLine(L"written");
  EXPECT_EQ(Text(), Line(L"written"));
}

TEST_F(DebugLogTest, ReadsTheRegistryOnlyWhenItIsDue) {
  registry_reads = 0;
  corvid::DebugLog log(L"test.log", 16, {&clock_, &NoBase, &CountedAccess});
  for (int second = 0; second < 25; ++second) {
    log.WriteLine(L"x");
    log.ReloadSettings();
    clock_.seconds += 1;
  }
  EXPECT_EQ(registry_reads, 3);  // at 0, 10 and 20 seconds
}

TEST_F(DebugLogTest, IsAtTheRootWithoutABaseFolder) {
  registry_.Remove(kKey, L"OutputLogDir");
  // The name leads from the root to the test's folder.
  const std::wstring path = folder_ / L"rooted.log";
#ifdef _WIN32
  const std::wstring name = L"\\?\\" + path;
#else
  const std::wstring name = path.substr(1);
#endif
  corvid::DebugLog log(name, 16, Surroundings());
  log.WriteLine(L"at the root");
  EXPECT_EQ(kyd_test::ReadFileBytes(path), kMark + Line(L"at the root"));
}

TEST_F(DebugLogTest, SurvivesAReadThatThrows) {
  for (const auto base : {&BaseThatThrows, &BaseThatThrowsANumber}) {
    registry_.Remove(kKey, L"OutputLogDir");
    corvid::DebugLog log(L"test.log", 16, {&clock_, base, &PlainAccess});
    log.ReloadSettings();
    registry_.SetText(kKey, L"OutputLogDir", folder_.Path());
    clock_.seconds += 10;
    // On another thread, which needs the lock.
    std::thread([&log] { log.WriteLine(L"afterwards"); }).join();
    EXPECT_NE(Text().find(", afterwards,\r\n"), std::string::npos);
    EXPECT_TRUE(platform::RemoveFile(LogPath()));
  }
}

// A clock that throws what the test selects, or nothing.
struct ThrowingClock : platform::Clock {
  [[nodiscard]] std::int64_t Seconds() const override {
    Throw(seconds);
    return 1'700'000'000;
  }
  [[nodiscard]] platform::LocalTime Local() const override {
    Throw(local);
    return {};
  }
  static void Throw(const std::exception_ptr& what) {
    if (what != nullptr) {
      std::rethrow_exception(what);
    }
  }
  std::exception_ptr seconds;
  std::exception_ptr local;
};

std::vector<std::exception_ptr> WhateverCanBeThrown() {
  return {std::make_exception_ptr(std::runtime_error("no time")), std::make_exception_ptr(1)};
}

TEST_F(DebugLogTest, LosesOnlyALineThatCannotBeBuilt) {
  for (const std::exception_ptr& what : WhateverCanBeThrown()) {
    ThrowingClock clock;
    corvid::DebugLog log(L"test.log", 16, {&clock, &NoBase, &PlainAccess});
    clock.local = what;
    log.WriteLine(L"lost");
    clock.local = nullptr;
    log.WriteLine(L"written");
    EXPECT_EQ(Text(), platform::ToUtf8(corvid::LogLine({}, L"written")) + "\r\n");
    EXPECT_TRUE(platform::RemoveFile(LogPath()));
  }
}

TEST_F(DebugLogTest, ThrowsNothingIfTheClockThrows) {
  for (const std::exception_ptr& what : WhateverCanBeThrown()) {
    ThrowingClock clock;
    corvid::DebugLog log(L"test.log", 16, {&clock, &NoBase, &PlainAccess});
    clock.seconds = what;
    log.ReloadSettings();
    log.RotateIfNeeded(LogPath().c_str());
    EXPECT_FALSE(log.IsEnabled());
  }
}

TEST_F(DebugLogTest, DoesNotTruncateALongLine) {
  const std::wstring message(5000, L'm');
  log_->WriteLine(message.c_str());
  EXPECT_EQ(Text(), Line(message.c_str()));
}

TEST_F(DebugLogTest, WritesALineWithoutAMessage) {
  log_->WriteLine(nullptr);
  EXPECT_EQ(Text(), Line(L""));
}

TEST_F(DebugLogTest, WritesWholeLinesFromManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kLines = 25;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this, i] {
      for (int line = 0; line < kLines; ++line) {
        log_->WriteLine((L"of " + std::to_wstring(i) + L" " + std::to_wstring(line)).c_str());
      }
    });
  }
  for (std::thread& one : threads) {
    one.join();
  }
  const std::string text = Text();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), kThreads * kLines);
  for (int i = 0; i < kThreads; ++i) {
    std::size_t at = 0;
    for (int line = 0; line < kLines; ++line) {  // the lines of each thread are in order
      const std::string message =
          ", of " + std::to_string(i) + " " + std::to_string(line) + ",\r\n";
      at = text.find(message, at);
      ASSERT_NE(at, std::string::npos) << message;
    }
  }
}

TEST_F(DebugLogTest, PendingLinesKeepTheirTime) {
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

TEST_F(DebugLogTest, WritesPendingLinesOnDestruction) {
  log_->ReloadSettings();
  BlockLog();
  log_->WriteLine(L"kept");
  UnblockLog();
  log_.reset();
  EXPECT_EQ(Text(), Line(L"kept"));
}

TEST_F(DebugLogTest, RecreatesTheFolderAtTheNextDueRead) {
  log_->WriteLine(L"first");
  ASSERT_TRUE(platform::MoveWithoutReplacing(LogFolder(), folder_ / L"gone"));
  log_->WriteLine(L"kept");
  EXPECT_FALSE(kyd_test::PathExists(LogFolder()));
  clock_.seconds += 10;
  log_->WriteLine(L"second");
  EXPECT_EQ(Text(), Line(L"kept") + Line(L"second"));
}

TEST_F(DebugLogTest, RotatesAFileOfExactlyTheLimit) {
  const std::size_t size = 3 + Line(L"x").size();
  registry_.SetDword(kKey, L"OutputLogSize", static_cast<std::uint32_t>(size));
  log_->WriteLine(L"x");
  EXPECT_FALSE(kyd_test::PathExists(LogPath()));
  EXPECT_EQ(kyd_test::ReadFileBytes(BackupPath()), kMark + Line(L"x"));
}

TEST_F(DebugLogTest, DoesNotRotateAFileOneByteBelowTheLimit) {
  const std::size_t size = 3 + Line(L"x").size() + 1;
  registry_.SetDword(kKey, L"OutputLogSize", static_cast<std::uint32_t>(size));
  log_->WriteLine(L"x");
  EXPECT_EQ(Text(), Line(L"x"));
}

TEST_F(DebugLogTest, ChecksTheSizeEveryTenSeconds) {
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

TEST_F(DebugLogTest, ChecksTheSizeAfterAFlush) {
  registry_.SetDword(kKey, L"OutputLogSize", 1);
  log_->ReloadSettings();
  BlockLog();
  log_->WriteLine(L"kept");
  UnblockLog();
  log_->FlushPending();
  EXPECT_FALSE(kyd_test::PathExists(LogPath()));
  EXPECT_EQ(kyd_test::ReadFileBytes(BackupPath()), kMark + Line(L"kept"));
}

TEST_F(DebugLogTest, FlushesNothingWithoutAFile) {
  log_->ReloadSettings();
  log_->FlushPending();
  EXPECT_FALSE(kyd_test::PathExists(LogPath()));
}

TEST_F(DebugLogTest, CountsACheckOfAMissingFile) {
  registry_.SetDword(kKey, L"OutputLogSize", 1);
  log_->ReloadSettings();
  log_->RotateIfNeeded((folder_ / L"missing.log").c_str());
  clock_.seconds += 9;
  log_->WriteLine(L"stays");
  EXPECT_EQ(Text(), Line(L"stays"));
}

TEST_F(DebugLogTest, RetriesAFailedMoveAtTheNextCheck) {
  registry_.SetDword(kKey, L"OutputLogSize", 1);
  log_->ReloadSettings();
  ASSERT_TRUE(platform::CreateFolders(BackupPath()));
  log_->WriteLine(L"one");
  EXPECT_EQ(Text(), Line(L"one"));
  ASSERT_TRUE(platform::MoveWithoutReplacing(BackupPath(), folder_ / L"moved away"));
  clock_.seconds += 9;
  log_->WriteLine(L"two");
  EXPECT_FALSE(kyd_test::PathExists(BackupPath()));
  clock_.seconds += 1;
  log_->WriteLine(L"three");
  EXPECT_EQ(kyd_test::ReadFileBytes(BackupPath()),
            kMark + Line(L"one") + Line(L"two") + Line(L"three"));
}

TEST_F(DebugLogTest, SkipsTheCheckOfANullPath) {
  log_->RotateIfNeeded(nullptr);
  EXPECT_FALSE(kyd_test::PathExists(BackupPath()));
}

}  // namespace
