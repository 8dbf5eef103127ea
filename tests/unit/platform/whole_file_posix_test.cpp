// Atomic creation of files when system calls fail.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <utility>
#include <vector>

#include "platform/error.h"
#include "platform/text.h"
#include "platform/whole_file.h"
#include "tests/unit/support/failing_calls_posix.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using kyd_test::FailingCall;
using platform::FileReaders;

class WholeFilePosix : public testing::Test {
 protected:
  using Writer = bool (*)(const std::wstring& path, const void* bytes, std::size_t size,
                          FileReaders readers);

  // The error number of a failing write.
  unsigned ErrorOf(Writer write, const std::vector<FailingCall>& calls) {
    unsigned error = 0;
    EXPECT_TRUE(kyd_test::RunWithout(calls, [&] {
      const bool written = write(path_, "new", 3, FileReaders::kOwner);
      error = platform::LastError();
      return !written;
    }));
    return error;
  }
  mode_t ModeOfNew(FileReaders readers) {
    EXPECT_TRUE(platform::ReplaceWholeFile(path_, "new", 3, readers));
    struct stat status = {};
    EXPECT_EQ(stat(platform::ToNativePath(path_).c_str(), &status), 0);
    return status.st_mode & 0777;
  }
  std::ptrdiff_t CountFiles() const {
    return std::distance(std::filesystem::directory_iterator(folder_.Path()), {});
  }

  kyd_test::TempFolder folder_;
  std::wstring path_ = folder_ / L"file";
};

TEST_F(WholeFilePosix, FailingCallChangesNothing) {
  const std::vector<std::pair<FailingCall, unsigned>> failures = {
      {{SYS_openat, EACCES, std::nullopt}, platform::kErrorAccessDenied},
      {{SYS_write, ENOSPC, std::nullopt}, platform::kErrorDiskFull},
      {{SYS_fsync, EACCES, std::nullopt}, platform::kErrorAccessDenied},
  };
  kyd_test::WriteFileBytes(path_, "old");
  for (const auto& [call, expected] : failures) {
    for (const Writer write : {&platform::ReplaceWholeFile, &platform::WriteWholeFile}) {
      EXPECT_EQ(ErrorOf(write, {call}), expected);
      EXPECT_EQ(kyd_test::ReadFileBytes(path_), "old");
      EXPECT_EQ(CountFiles(), 1);
    }
  }
  EXPECT_EQ(ErrorOf(&platform::ReplaceWholeFile, {{SYS_rename, EACCES, std::nullopt}}),
            platform::kErrorAccessDenied);
  EXPECT_EQ(kyd_test::ReadFileBytes(path_), "old");
  EXPECT_EQ(CountFiles(), 1);
}

TEST_F(WholeFilePosix, RefusedNameLeavesNothing) {
  EXPECT_EQ(ErrorOf(&platform::WriteWholeFile, {{SYS_renameat2, EACCES, std::nullopt}}),
            platform::kErrorAccessDenied);
  EXPECT_EQ(CountFiles(), 0);
}

// If the call that creates the draft succeeds but reports failure, that draft is used.
TEST_F(WholeFilePosix, DraftReportedAsFailedIsUsed) {
  for (const int error_number : {EINTR, EIO, ESTALE}) {
    for (const Writer write : {&platform::WriteWholeFile, &platform::ReplaceWholeFile}) {
      EXPECT_TRUE(
          kyd_test::RunWithInstead({SYS_openat}, kyd_test::DoneButFailing(error_number),
                                   [&] { return write(path_, "new", 3, FileReaders::kOwner); }))
          << error_number;
      EXPECT_EQ(kyd_test::ReadFileBytes(path_), "new");
      EXPECT_EQ(CountFiles(), 1);
      std::filesystem::remove(platform::ToNativePath(path_));
    }
  }
}

TEST_F(WholeFilePosix, DraftThatCannotBeReopenedIsRemoved) {
  const auto instead = [](const kyd_test::SystemCall& call) -> long {
    static_cast<void>(call.Perform());
    return -EIO;
  };
  EXPECT_FALSE(kyd_test::RunWithInstead({SYS_openat}, instead, [&] {
    return platform::WriteWholeFile(path_, "new", 3, FileReaders::kOwner);
  }));
  EXPECT_EQ(CountFiles(), 0);
}

TEST_F(WholeFilePosix, InterruptedDraftIsCreatedAgain) {
  EXPECT_TRUE(kyd_test::RunWithInstead({SYS_openat}, kyd_test::Failing(EINTR), [&] {
    return platform::WriteWholeFile(path_, "new", 3, FileReaders::kOwner);
  }));
  EXPECT_EQ(kyd_test::ReadFileBytes(path_), "new");
  EXPECT_EQ(CountFiles(), 1);
}

TEST_F(WholeFilePosix, IsForItsOwnerOrForEveryone) {
  const mode_t mask = umask(0022);
  EXPECT_EQ(ModeOfNew(FileReaders::kOwner), 0600U);
  EXPECT_EQ(ModeOfNew(FileReaders::kEveryone), 0644U);
  umask(mask);
}

}  // namespace
