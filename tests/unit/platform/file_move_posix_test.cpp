#include "platform/file_move_posix.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "platform/error.h"
#include "platform/file.h"
#include "platform/text.h"
#include "tests/unit/support/failing_calls_posix.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using kyd_test::CallArgument;
using kyd_test::DoneButFailing;
using kyd_test::Failing;
using kyd_test::FailingCall;
using kyd_test::PathExists;
using kyd_test::ReadFileBytes;
using kyd_test::RunWithInstead;
using kyd_test::RunWithout;
using kyd_test::SystemCall;
using kyd_test::WriteFileBytes;
using platform::MoveWithoutReplacing;

std::string Native(const std::wstring& path) {
  return platform::ToNativePath(path);
}

std::size_t EntryCount(const std::wstring& folder) {
  const std::filesystem::directory_iterator entries(Native(folder));
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// ---- The ways to move within one file system

using Way = int (*)(const std::string&, const std::string&);

struct NamedWay {
  const char* name;
  Way move;
};

class MoveWay : public testing::TestWithParam<NamedWay> {
 protected:
  [[nodiscard]] int Move() const { return GetParam().move(Native(source_), Native(target_)); }

  kyd_test::TempFolder folder_;
  std::wstring source_ = folder_ / L"source";
  std::wstring archive_ = folder_.MakeFolder(L"archive");
  std::wstring target_ = archive_ + L"/target";
};

TEST_P(MoveWay, MovesTheSameFile) {
  WriteFileBytes(source_, "content");
  struct stat before = {};
  struct stat after = {};
  ASSERT_EQ(stat(Native(source_).c_str(), &before), 0);
  EXPECT_EQ(Move(), 0);
  ASSERT_EQ(stat(Native(target_).c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(after.st_nlink, 1U);
  EXPECT_FALSE(PathExists(source_));
  EXPECT_EQ(ReadFileBytes(target_), "content");
}

TEST_P(MoveWay, NeverReplacesAnything) {
  WriteFileBytes(source_, "new");
  WriteFileBytes(target_, "old");
  EXPECT_EQ(Move(), EEXIST);
  EXPECT_EQ(ReadFileBytes(source_), "new");
  EXPECT_EQ(ReadFileBytes(target_), "old");
  std::filesystem::remove(Native(target_));
  std::filesystem::create_symlink("nothing", Native(target_));
  EXPECT_EQ(Move(), EEXIST);
  EXPECT_EQ(ReadFileBytes(source_), "new");
  std::filesystem::remove(Native(target_));
  std::filesystem::create_directory(Native(target_));
  EXPECT_EQ(Move(), EEXIST);
  EXPECT_EQ(ReadFileBytes(source_), "new");
}

TEST_P(MoveWay, CreatesNothingWithoutASource) {
  EXPECT_EQ(Move(), ENOENT);
  EXPECT_EQ(EntryCount(archive_), 0U);
}

TEST_P(MoveWay, KeepsTheSourceWithoutAFolder) {
  WriteFileBytes(source_, "content");
  std::filesystem::remove(Native(archive_));
  EXPECT_EQ(Move(), ENOENT);
  EXPECT_EQ(ReadFileBytes(source_), "content");
}

TEST_P(MoveWay, MovesALinkAsALink) {
  std::filesystem::create_symlink("nothing", Native(source_));
  EXPECT_EQ(Move(), 0);
  EXPECT_EQ(std::filesystem::read_symlink(Native(target_)), "nothing");
  EXPECT_FALSE(PathExists(source_));
}

INSTANTIATE_TEST_SUITE_P(SameFileSystem, MoveWay,
                         testing::Values(NamedWay{"Rename", &platform::MoveByRename},
                                         NamedWay{"Link", &platform::MoveByLink},
                                         NamedWay{"Reservation", &platform::MoveByReservation},
                                         NamedWay{"Best", &platform::MoveOnSameFileSystem}),
                         [](const auto& way) { return way.param.name; });

TEST(MoveByReservation, MovesAFolderWithItsContent) {
  const kyd_test::TempFolder folder;
  WriteFileBytes(folder.MakeFolder(L"source") + L"/inside", "content");
  EXPECT_EQ(platform::MoveByReservation(Native(folder / L"source"), Native(folder / L"target")), 0);
  EXPECT_EQ(ReadFileBytes(folder / L"target/inside"), "content");
  EXPECT_FALSE(PathExists(folder / L"source"));
}

TEST(MoveOnSameFileSystem, DoesNotMoveAFolderIntoItself) {
  const kyd_test::TempFolder folder;
  const std::wstring source = folder.MakeFolder(L"source");
  EXPECT_EQ(platform::MoveOnSameFileSystem(Native(source), Native(source) + "/inside"), EINVAL);
  EXPECT_EQ(EntryCount(source), 0U);
}

// ---- Calls that succeed but report failure, or are interrupted

// A way to move, one of its calls, and the error that the call reports although it succeeded.
struct DoubtfulCall {
  const char* name;
  Way move;
  unsigned number;
  int error_number;
};

const std::vector<DoubtfulCall>& DoubtfulCalls() {
  static const std::vector<DoubtfulCall> calls = [] {
    std::vector<DoubtfulCall> all;
    for (const int error_number : {ENOENT, EEXIST, EIO, ESTALE, EINTR}) {
      all.push_back({"Rename", &platform::MoveByRename, SYS_renameat2, error_number});
      all.push_back({"Link", &platform::MoveByLink, SYS_link, error_number});
      all.push_back({"Unlink", &platform::MoveByLink, SYS_unlink, error_number});
      all.push_back({"RenameOver", &platform::MoveByReservation, SYS_rename, error_number});
      all.push_back({"Best", &platform::MoveOnSameFileSystem, SYS_renameat2, error_number});
    }
    for (const int error_number : {EINVAL, ENOSYS, EOPNOTSUPP}) {
      all.push_back({"Best", &platform::MoveOnSameFileSystem, SYS_renameat2, error_number});
    }
    for (const int error_number : {EPERM, EMLINK}) {
      all.push_back({"Link", &platform::MoveByLink, SYS_link, error_number});
    }
    for (const int error_number : {EIO, ESTALE, EINTR}) {
      all.push_back({"Reserve", &platform::MoveByReservation, SYS_openat, error_number});
    }
    return all;
  }();
  return calls;
}

class MoveReportedAsFailed : public testing::TestWithParam<DoubtfulCall> {
 protected:
  kyd_test::TempFolder folder_;
  std::string source_ = Native(folder_ / L"source");
  std::string target_ = Native(folder_ / L"target");
};

TEST_P(MoveReportedAsFailed, CountsAsMoved) {
  WriteFileBytes(folder_ / L"source", "content");
  int result = -1;
  RunWithInstead({GetParam().number}, DoneButFailing(GetParam().error_number), [&] {
    result = GetParam().move(source_, target_);
    return true;
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(ReadFileBytes(folder_ / L"target"), "content");
  EXPECT_EQ(EntryCount(folder_.Path()), 1U);
}

INSTANTIATE_TEST_SUITE_P(SameFileSystem, MoveReportedAsFailed, testing::ValuesIn(DoubtfulCalls()),
                         [](const auto& call) {
                           return call.param.name + std::to_string(call.param.error_number) + "At" +
                                  std::to_string(call.index);
                         });

class Interrupted : public testing::TestWithParam<DoubtfulCall> {};

TEST_P(Interrupted, IsRepeated) {
  const kyd_test::TempFolder folder;
  WriteFileBytes(folder / L"source", "content");
  int result = -1;
  RunWithInstead({GetParam().number}, Failing(EINTR), [&] {
    result = GetParam().move(Native(folder / L"source"), Native(folder / L"target"));
    return true;
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(ReadFileBytes(folder / L"target"), "content");
  EXPECT_EQ(EntryCount(folder.Path()), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    SameFileSystem, Interrupted,
    testing::Values(DoubtfulCall{"Look", &platform::MoveByRename, SYS_statx, EINTR},
                    DoubtfulCall{"Rename", &platform::MoveByRename, SYS_renameat2, EINTR},
                    DoubtfulCall{"Link", &platform::MoveByLink, SYS_link, EINTR},
                    DoubtfulCall{"Unlink", &platform::MoveByLink, SYS_unlink, EINTR},
                    DoubtfulCall{"Reserve", &platform::MoveByReservation, SYS_openat, EINTR},
                    DoubtfulCall{"RenameOver", &platform::MoveByReservation, SYS_rename, EINTR}),
    [](const auto& call) { return call.param.name; });

TEST(MoveByRename, ExistingTargetIsNotMistakenForTheMovedFile) {
  const kyd_test::TempFolder folder;
  WriteFileBytes(folder / L"source", "new");
  WriteFileBytes(folder / L"target", "old");
  // Another process removes the source at the same time.
  const auto instead = [&](const SystemCall& /*call*/) -> long {
    std::filesystem::remove(Native(folder / L"source"));
    return -EEXIST;
  };
  EXPECT_TRUE(RunWithInstead({SYS_renameat2}, instead, [&] {
    return platform::MoveByRename(Native(folder / L"source"), Native(folder / L"target")) == EEXIST;
  }));
  EXPECT_EQ(ReadFileBytes(folder / L"target"), "old");
}

TEST(MoveByLink, DoesNotMoveAFileOntoItsOtherName) {
  const kyd_test::TempFolder folder;
  WriteFileBytes(folder / L"source", "content");
  const std::string source = Native(folder / L"source");
  std::filesystem::create_directory_symlink(".", Native(folder / L"same"));
  EXPECT_EQ(platform::MoveByLink(source, Native(folder / L"same/source")), EEXIST);
  EXPECT_EQ(ReadFileBytes(folder / L"source"), "content");
}

// From the first failure of the given call on, every status query fails.
kyd_test::Instead FailingBlindly(unsigned number) {
  return [number, blind = false](const SystemCall& call) mutable -> long {
    if (call.number == number) {
      blind = true;
      return -EIO;
    }
    return blind ? -EIO : call.Perform();
  };
}

TEST(MoveByLink, BothNamesStayIfTheOutcomeIsUnknown) {
  const kyd_test::TempFolder folder;
  WriteFileBytes(folder / L"source", "content");
  EXPECT_TRUE(RunWithInstead({SYS_unlink, SYS_statx}, FailingBlindly(SYS_unlink), [&] {
    return platform::MoveByLink(Native(folder / L"source"), Native(folder / L"target")) == EIO;
  }));
  EXPECT_EQ(ReadFileBytes(folder / L"source"), "content");
  EXPECT_EQ(ReadFileBytes(folder / L"target"), "content");
}

// A server may have one name only, while the client still shows both.
TEST(MoveByLink, KeepsTheNewNameUnlessBothNamesAreCounted) {
  const kyd_test::TempFolder folder;
  WriteFileBytes(folder / L"source", "content");
  const auto instead = [](const SystemCall& call) -> long {
    if (call.number == SYS_unlink) {
      return -EIO;
    }
    const long result = call.Perform();
    if (result == 0) {
      // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel takes addresses as numbers
      reinterpret_cast<struct statx*>(call.arguments[4])->stx_nlink = 1;
    }
    return result;
  };
  EXPECT_TRUE(RunWithInstead({SYS_unlink, SYS_statx}, instead, [&] {
    return platform::MoveByLink(Native(folder / L"source"), Native(folder / L"target")) == EIO;
  }));
  EXPECT_EQ(ReadFileBytes(folder / L"target"), "content");
}

TEST(MoveByReservation, NothingIsRemovedIfTheOutcomeIsUnknown) {
  const kyd_test::TempFolder folder;
  WriteFileBytes(folder / L"source", "content");
  EXPECT_TRUE(RunWithInstead({SYS_rename, SYS_statx}, FailingBlindly(SYS_rename), [&] {
    return platform::MoveByReservation(Native(folder / L"source"), Native(folder / L"target")) ==
           EIO;
  }));
  EXPECT_EQ(ReadFileBytes(folder / L"source"), "content");
  EXPECT_TRUE(PathExists(folder / L"target"));
}

TEST(MoveByReservation, ExistingEmptyFileIsNotMistakenForTheReservation) {
  const kyd_test::TempFolder folder;
  WriteFileBytes(folder / L"source", "");
  EXPECT_TRUE(RunWithInstead({SYS_rename}, DoneButFailing(EIO), [&] {
    return platform::MoveByReservation(Native(folder / L"source"), Native(folder / L"target")) == 0;
  }));
  EXPECT_TRUE(PathExists(folder / L"target"));
}

TEST(MoveByReservation, FolderCountsAsMovedIfTheCallSucceeded) {
  for (const unsigned number : {SYS_mkdir, SYS_rename}) {
    for (const int error_number : {EIO, EINTR}) {
      const kyd_test::TempFolder folder;
      WriteFileBytes(folder.MakeFolder(L"source") + L"/inside", "content");
      EXPECT_TRUE(RunWithInstead({number}, DoneButFailing(error_number), [&] {
        return platform::MoveByReservation(Native(folder / L"source"),
                                           Native(folder / L"target")) == 0;
      }));
      EXPECT_EQ(ReadFileBytes(folder / L"target/inside"), "content");
      EXPECT_EQ(EntryCount(folder.Path()), 1U);
    }
  }
}

// The interrupted call can only have created an empty file; one with content belongs to another
// process.
TEST(MoveByReservation, FileCreatedByAnotherProcessStays) {
  for (const int error_number : {EEXIST, EINTR, EIO}) {
    const kyd_test::TempFolder folder;
    WriteFileBytes(folder / L"source", "content");
    WriteFileBytes(folder / L"other", "of another");
    const auto instead = [&](const SystemCall& call) -> long {
      if (call.arguments[2] & O_EXCL) {
        return link(Native(folder / L"other").c_str(), Native(folder / L"target").c_str()) == 0
                   ? -error_number
                   : -errno;
      }
      return call.Perform();
    };
    EXPECT_TRUE(RunWithInstead({SYS_openat}, instead, [&] {
      return platform::MoveByReservation(Native(folder / L"source"), Native(folder / L"target")) !=
             0;
    })) << error_number;
    EXPECT_EQ(ReadFileBytes(folder / L"source"), "content");
    EXPECT_EQ(ReadFileBytes(folder / L"target"), "of another");
  }
}

TEST(MoveReplacing, CountsAsMovedIfTheCallSucceeded) {
  for (const int error_number : {ENOENT, EIO, ESTALE, EINTR}) {
    const kyd_test::TempFolder folder;
    WriteFileBytes(folder / L"source", "new");
    WriteFileBytes(folder / L"target", "old");
    EXPECT_TRUE(RunWithInstead({SYS_rename}, DoneButFailing(error_number), [&] {
      return platform::MoveReplacing(folder / L"source", folder / L"target");
    })) << error_number;
    EXPECT_EQ(ReadFileBytes(folder / L"target"), "new");
  }
}

// Performs the first call, creates a new file at the path that it freed, as another process might,
// and reports EINTR.
auto InterruptedWhenReplaced(const std::wstring& path) {
  return [path, calls = 0](SystemCall call) mutable {
    const long result = call.Perform();
    if (++calls > 1 || result < 0) {
      return result;
    }
    WriteFileBytes(path, "of another");
    return -long{EINTR};
  };
}

TEST(MoveReplacing, DoesNotRepeatACompletedRename) {
  const kyd_test::TempFolder folder;
  const std::wstring source = folder / L"source";
  WriteFileBytes(source, "new");
  WriteFileBytes(folder / L"target", "old");
  EXPECT_TRUE(RunWithInstead({SYS_rename}, InterruptedWhenReplaced(source),
                             [&] { return platform::MoveReplacing(source, folder / L"target"); }));
  EXPECT_EQ(ReadFileBytes(folder / L"target"), "new");
  EXPECT_EQ(ReadFileBytes(source), "of another");
}

TEST(MoveByLink, DoesNotRepeatACompletedRemoval) {
  const kyd_test::TempFolder folder;
  const std::wstring source = folder / L"source";
  WriteFileBytes(source, "content");
  EXPECT_TRUE(RunWithInstead({SYS_unlink}, InterruptedWhenReplaced(source), [&] {
    return platform::MoveByLink(Native(source), Native(folder / L"target")) == 0;
  }));
  EXPECT_EQ(ReadFileBytes(folder / L"target"), "content");
  EXPECT_EQ(ReadFileBytes(source), "of another");
}

// ---- File systems without some calls

class MoveWithoutCalls : public testing::TestWithParam<std::vector<FailingCall>> {};

TEST_P(MoveWithoutCalls, StillMovesAndNeverReplaces) {
  const kyd_test::TempFolder folder;
  const std::wstring source = folder / L"source";
  const std::wstring target = folder / L"target";
  WriteFileBytes(source, "new");
  EXPECT_TRUE(RunWithout(GetParam(), [&] { return MoveWithoutReplacing(source, target); }));
  EXPECT_EQ(ReadFileBytes(target), "new");
  EXPECT_FALSE(PathExists(source));

  WriteFileBytes(source, "newer");
  EXPECT_TRUE(RunWithout(GetParam(), [&] {
    return !MoveWithoutReplacing(source, target) &&
           platform::LastError() == platform::kErrorAlreadyExists;
  }));
  EXPECT_EQ(ReadFileBytes(target), "new");
  EXPECT_EQ(ReadFileBytes(source), "newer");
  EXPECT_EQ(EntryCount(folder.Path()), 2U);
}

INSTANTIATE_TEST_SUITE_P(
    FileSystems, MoveWithoutCalls,
    testing::Values(std::vector<FailingCall>{{SYS_renameat2, EINVAL, std::nullopt}},
                    std::vector<FailingCall>{{SYS_renameat2, ENOSYS, std::nullopt}},
                    std::vector<FailingCall>{{SYS_renameat2, EOPNOTSUPP, std::nullopt}},
                    std::vector<FailingCall>{{SYS_renameat2, EINVAL, std::nullopt},
                                             {SYS_link, EPERM, std::nullopt}},
                    std::vector<FailingCall>{{SYS_renameat2, EINVAL, std::nullopt},
                                             {SYS_link, EINVAL, std::nullopt}},
                    std::vector<FailingCall>{{SYS_renameat2, EINVAL, std::nullopt},
                                             {SYS_link, ENOTSUP, std::nullopt}},
                    std::vector<FailingCall>{{SYS_renameat2, EINVAL, std::nullopt},
                                             {SYS_link, EMLINK, std::nullopt}},
                    std::vector<FailingCall>{{SYS_renameat2, EINVAL, std::nullopt},
                                             {SYS_link, ENOSYS, std::nullopt}}));

// Older system call filters reject statx.
TEST(MoveOnSameFileSystem, WorksWithoutStatx) {
  for (const int error_number : {EPERM, EINVAL, ENOSYS}) {
    for (const Way move : std::initializer_list<Way>{&platform::MoveByRename, &platform::MoveByLink,
                                                     &platform::MoveByReservation}) {
      const kyd_test::TempFolder folder;
      WriteFileBytes(folder / L"source", "content");
      std::filesystem::create_symlink("source", Native(folder / L"link"));
      EXPECT_TRUE(RunWithout({{SYS_statx, error_number, std::nullopt}}, [&] {
        return move(Native(folder / L"source"), Native(folder / L"target")) == 0 &&
               move(Native(folder / L"link"), Native(folder / L"moved link")) == 0 &&
               move(Native(folder / L"target"), Native(folder / L"moved link")) == EEXIST;
      })) << error_number;
      EXPECT_EQ(ReadFileBytes(folder / L"target"), "content");
      EXPECT_TRUE(std::filesystem::is_symlink(Native(folder / L"moved link")));
      EXPECT_EQ(EntryCount(folder.Path()), 2U);
    }
  }
}

TEST(MoveByLink, KeepsASourceThatCannotBeRemoved) {
  const kyd_test::TempFolder folder;
  const std::string source = Native(folder / L"source");
  const std::string target = Native(folder / L"target");
  WriteFileBytes(folder / L"source", "content");
  EXPECT_TRUE(RunWithout({{SYS_unlink, EROFS, CallArgument::Path(0, source.c_str())}},
                         [&] { return platform::MoveByLink(source, target) == EROFS; }));
  EXPECT_EQ(ReadFileBytes(folder / L"source"), "content");
  EXPECT_FALSE(PathExists(folder / L"target"));
}

// fstatat on a network file system may return a cached entry of a source that is gone.
TEST(MoveByLink, KeepsBothNamesWithoutStatx) {
  const kyd_test::TempFolder folder;
  const std::string source = Native(folder / L"source");
  const std::string target = Native(folder / L"target");
  WriteFileBytes(folder / L"source", "content");
  EXPECT_TRUE(RunWithout(
      {{SYS_statx, EPERM, std::nullopt}, {SYS_unlink, EIO, CallArgument::Path(0, source.c_str())}},
      [&] { return platform::MoveByLink(source, target) == EIO; }));
  EXPECT_EQ(ReadFileBytes(folder / L"source"), "content");
  EXPECT_EQ(ReadFileBytes(folder / L"target"), "content");
}

TEST(MoveByReservation, LeavesNothingWhenTheRenameFails) {
  const kyd_test::TempFolder folder;
  const std::string target = Native(folder / L"target");
  WriteFileBytes(folder / L"file", "content");
  WriteFileBytes(folder.MakeFolder(L"folder") + L"/inside", "content");
  for (const std::wstring& source : {folder / L"file", folder / L"folder"}) {
    EXPECT_TRUE(RunWithout({{SYS_rename, EIO, std::nullopt}}, [&] {
      return platform::MoveByReservation(Native(source), target) == EIO;
    }));
    EXPECT_TRUE(PathExists(source));
    EXPECT_FALSE(PathExists(folder / L"target"));
  }
}

TEST(MoveByReservation, FolderReplacesNothing) {
  const kyd_test::TempFolder folder;
  const std::wstring source = folder.MakeFolder(L"source");
  WriteFileBytes(folder / L"target", "old");
  EXPECT_EQ(platform::MoveByReservation(Native(source), Native(folder / L"target")), EEXIST);
  EXPECT_TRUE(platform::IsFolder(source));
  EXPECT_EQ(ReadFileBytes(folder / L"target"), "old");
}

TEST(MoveOnSameFileSystem, ReturnsTheErrorOfTheLinkUnlessLinksAreUnsupported) {
  const kyd_test::TempFolder folder;
  WriteFileBytes(folder / L"source", "content");
  EXPECT_TRUE(
      RunWithout({{SYS_renameat2, ENOSYS, std::nullopt}, {SYS_link, EACCES, std::nullopt}}, [&] {
        return platform::MoveOnSameFileSystem(Native(folder / L"source"),
                                              Native(folder / L"target")) == EACCES;
      }));
  EXPECT_EQ(ReadFileBytes(folder / L"source"), "content");
  EXPECT_FALSE(PathExists(folder / L"target"));
}

TEST(SyncFolderOf, ReportsAFailureUnlessFoldersCannotBeSynced) {
  const kyd_test::TempFolder folder;
  const std::string path = Native(folder / L"file");
  const std::vector<std::pair<int, int>> answers = {{EIO, EIO},  {EINVAL, 0}, {ENOTSUP, 0},
                                                    {ENOSYS, 0}, {EBADF, 0},  {EINTR, EINTR}};
  for (const auto& [failure, answer] : answers) {
    EXPECT_TRUE(RunWithout({{SYS_fsync, failure, std::nullopt}}, [&path, expected = answer] {
      return platform::SyncFolderOf(path) == expected;
    }));
  }
  EXPECT_EQ(platform::SyncFolderOf("a name without a folder"), 0);
}

TEST(MoveReplacing, ReportsAFolderThatCannotBeSynced) {
  const kyd_test::TempFolder folder;
  WriteFileBytes(folder / L"source", "content");
  EXPECT_TRUE(RunWithout({{SYS_fsync, EIO, std::nullopt}}, [&] {
    return !platform::MoveReplacing(folder / L"source", folder / L"target") &&
           platform::LastError() == platform::kErrorGeneralFailure;
  }));
  EXPECT_EQ(ReadFileBytes(folder / L"target"), "content");
}

// ---- Across file systems

class MoveAcross : public testing::Test {
 protected:
  void SetUp() override {
    struct stat here = {};
    struct stat there = {};
    if (stat(Native(folder_.Path()).c_str(), &here) != 0 || stat("/dev/shm", &there) != 0 ||
        here.st_dev == there.st_dev || access("/dev/shm", W_OK) != 0) {
      GTEST_SKIP() << "no second writable file system";
    }
    other_ = std::make_unique<kyd_test::TempFolder>(L"/dev/shm");
    target_ = *other_ / L"target.log";
  }

  void ExpectNothingMoved(const std::string& content) const {
    EXPECT_EQ(ReadFileBytes(source_), content);
    EXPECT_EQ(EntryCount(other_->Path()), 0U);
  }

  kyd_test::TempFolder folder_;
  std::unique_ptr<kyd_test::TempFolder> other_;
  std::wstring source_ = folder_ / L"source.log";
  std::wstring target_;
};

TEST_F(MoveAcross, KeepsContentModeAndTimes) {
  std::string content;
  for (unsigned i = 0; i < 1'000'000; ++i) {
    content += static_cast<char>(i * 7919 >> 8);
  }
  WriteFileBytes(source_, content);
  ASSERT_EQ(chmod(Native(source_).c_str(), 0604), 0);
  const timespec times[2] = {{1'000'000'000, 5}, {1'100'000'000, 7}};
  ASSERT_EQ(utimensat(AT_FDCWD, Native(source_).c_str(), times, 0), 0);

  EXPECT_TRUE(MoveWithoutReplacing(source_, target_));
  EXPECT_FALSE(PathExists(source_));
  EXPECT_EQ(EntryCount(other_->Path()), 1U);
  EXPECT_TRUE(ReadFileBytes(target_) == content);
  struct stat status = {};
  ASSERT_EQ(stat(Native(target_).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0604U);
  EXPECT_EQ(status.st_mtim.tv_sec, 1'100'000'000);
  EXPECT_EQ(status.st_mtim.tv_nsec, 7);
}

TEST_F(MoveAcross, ReservesNothing) {
  WriteFileBytes(source_, "content");
  EXPECT_TRUE(RunWithout({{SYS_unlink, EIO, std::nullopt}}, [&] {
    return platform::MoveByReservation(Native(source_), Native(target_)) == EXDEV;
  }));
  ExpectNothingMoved("content");
}

TEST_F(MoveAcross, MovesAnEmptyFile) {
  WriteFileBytes(source_, "");
  EXPECT_TRUE(MoveWithoutReplacing(source_, target_));
  EXPECT_EQ(ReadFileBytes(target_), "");
  EXPECT_FALSE(PathExists(source_));
}

TEST_F(MoveAcross, HandlesTheLongestName) {
  WriteFileBytes(source_, "content");
  const std::wstring target = *other_ / std::wstring(255, L'x');
  EXPECT_TRUE(MoveWithoutReplacing(source_, target));
  EXPECT_EQ(ReadFileBytes(target), "content");
}

TEST_F(MoveAcross, NeverReplacesAFile) {
  WriteFileBytes(source_, "new");
  WriteFileBytes(target_, "old");
  EXPECT_FALSE(MoveWithoutReplacing(source_, target_));
  EXPECT_EQ(platform::LastError(), platform::kErrorAlreadyExists);
  EXPECT_EQ(ReadFileBytes(source_), "new");
  EXPECT_EQ(ReadFileBytes(target_), "old");
  EXPECT_EQ(EntryCount(other_->Path()), 1U);
}

TEST_F(MoveAcross, ReportsAMissingFolder) {
  WriteFileBytes(source_, "content");
  EXPECT_FALSE(MoveWithoutReplacing(source_, *other_ / L"missing/target"));
  EXPECT_EQ(platform::LastError(), platform::kErrorPathNotFound);
  ExpectNothingMoved("content");
}

TEST_F(MoveAcross, DoesNotMoveFoldersAndLinks) {
  const std::wstring folder = folder_.MakeFolder(L"folder");
  EXPECT_FALSE(MoveWithoutReplacing(folder, target_));
  EXPECT_EQ(platform::LastError(), platform::kErrorGeneralFailure);
  EXPECT_TRUE(platform::IsFolder(folder));
  std::filesystem::create_symlink("nothing", Native(source_));
  EXPECT_FALSE(MoveWithoutReplacing(source_, target_));
  EXPECT_EQ(platform::LastError(), platform::kErrorGeneralFailure);
  EXPECT_TRUE(PathExists(source_));
  EXPECT_EQ(EntryCount(other_->Path()), 0U);
}

// One failing call, and the error that the failed move reports.
struct FailedCopy {
  const char* name;
  std::vector<FailingCall> calls;
  unsigned error;
};

class FailingCopy : public MoveAcross, public testing::WithParamInterface<FailedCopy> {};

TEST_P(FailingCopy, IsUndone) {
  const std::string content(100'000, 'x');
  WriteFileBytes(source_, content);
  unsigned error = 0;
  EXPECT_FALSE(RunWithout(GetParam().calls, [&] {
    const bool moved = MoveWithoutReplacing(source_, target_);
    error = platform::LastError();
    return moved;
  }));
  EXPECT_EQ(error, GetParam().error);
  ExpectNothingMoved(content);
}

constexpr std::uint32_t kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

INSTANTIATE_TEST_SUITE_P(
    Calls, FailingCopy,
    testing::Values(FailedCopy{"SourceCannotBeRead", {{SYS_read, EIO, std::nullopt}}, 31},
                    FailedCopy{"SourceHasNoStatus", kyd_test::WithoutFstat(EIO), 31},
                    FailedCopy{"SourceCannotBeLookedAt", kyd_test::WithoutLstat(EACCES), 5},
                    FailedCopy{"DiskIsFull", {{SYS_write, ENOSPC, std::nullopt}}, 112},
                    FailedCopy{"NothingIsWritten", {{SYS_write, 0, std::nullopt}}, 112},
                    FailedCopy{"CopyCannotBeSynced", {{SYS_fsync, EDQUOT, std::nullopt}}, 112},
                    FailedCopy{"CopyCannotBeClosed", {{SYS_close, EDQUOT, std::nullopt}}, 112},
                    FailedCopy{"CopyCannotBePublished", {{SYS_renameat2, EXDEV, std::nullopt}}, 31},
                    FailedCopy{"FolderCannotBeSynced",
                               {{SYS_openat, EMFILE, CallArgument{2, kFolderFlags}}},
                               31}),
    [](const auto& copy) { return copy.param.name; });

TEST_F(MoveAcross, FolderThatCannotBeReadIsNotAFailure) {
  WriteFileBytes(source_, "content");
  EXPECT_TRUE(RunWithout({{SYS_openat, EACCES, CallArgument{2, kFolderFlags}}},
                         [this] { return MoveWithoutReplacing(source_, target_); }));
  EXPECT_EQ(ReadFileBytes(target_), "content");
  EXPECT_FALSE(PathExists(source_));
}

// The first rename reports two file systems. The second one publishes the copy; `meanwhile` runs
// just before it.
bool MoveWhile(const std::wstring& source, const std::wstring& target,
               const std::function<void()>& meanwhile) {
  int calls = 0;
  const auto renameat2_instead = [&](const SystemCall& /*call*/) -> long {
    if (++calls == 1) {
      return -EXDEV;
    }
    meanwhile();
    const std::filesystem::path folder = std::filesystem::path(Native(target)).parent_path();
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      std::filesystem::rename(entry.path(), Native(target));
    }
    return 0;
  };
  return RunWithInstead({SYS_renameat2}, renameat2_instead,
                        [&] { return MoveWithoutReplacing(source, target); });
}

TEST_F(MoveAcross, KeepsTheCopyIfAnotherProcessRemovedTheSource) {
  WriteFileBytes(source_, "content");
  EXPECT_TRUE(MoveWhile(source_, target_, [this] { std::filesystem::remove(Native(source_)); }));
  EXPECT_EQ(ReadFileBytes(target_), "content");
}

// The move fails then, but undoing it would lose the only copy that is left.
TEST_F(MoveAcross, KeepsTheCopyIfTheSourceIsGoneAndTheFolderCannotBeSynced) {
  WriteFileBytes(source_, "content");
  int renames = 0;
  const auto instead = [&](const SystemCall& call) -> long {
    if (call.number == SYS_openat) {
      return static_cast<std::uint32_t>(call.arguments[2]) == kFolderFlags ? -EMFILE
                                                                           : call.Perform();
    }
    if (++renames == 1) {
      return -EXDEV;
    }
    unlink(Native(source_).c_str());
    return call.Perform();
  };
  EXPECT_TRUE(RunWithInstead({SYS_openat, SYS_renameat2}, instead,
                             [this] { return !MoveWithoutReplacing(source_, target_); }));
  EXPECT_EQ(ReadFileBytes(target_), "content");
}

TEST_F(MoveAcross, KeepsDataAppendedAtTheLastMoment) {
  WriteFileBytes(source_, "content");
  EXPECT_FALSE(MoveWhile(source_, target_, [this] { WriteFileBytes(source_, "more content"); }));
  ExpectNothingMoved("more content");
}

TEST_F(MoveAcross, KeepsDataOverwrittenAtTheLastMoment) {
  WriteFileBytes(source_, "content");
  const timespec times[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, Native(source_).c_str(), times, 0), 0);
  EXPECT_FALSE(MoveWhile(source_, target_, [this] { WriteFileBytes(source_, "CONTENT"); }));
  ExpectNothingMoved("CONTENT");
}

TEST_F(MoveAcross, KeepsAFileThatReplacesTheSourceAtTheLastMoment) {
  WriteFileBytes(source_, "content");
  EXPECT_TRUE(MoveWhile(source_, target_, [this] {
    WriteFileBytes(folder_ / L"new", "another");
    std::filesystem::rename(Native(folder_ / L"new"), Native(source_));
  }));
  EXPECT_EQ(ReadFileBytes(source_), "another");
  EXPECT_EQ(ReadFileBytes(target_), "content");
}

TEST_F(MoveAcross, WorksWithoutAttributes) {
  for (const unsigned number : {SYS_fchown, SYS_fchmod, SYS_utimensat}) {
    WriteFileBytes(source_, "content");
    EXPECT_TRUE(RunWithout({{number, EPERM, std::nullopt}},
                           [this] { return MoveWithoutReplacing(source_, target_); }));
    EXPECT_EQ(ReadFileBytes(target_), "content");
    EXPECT_FALSE(PathExists(source_));
    std::filesystem::remove(Native(target_));
  }
}

TEST_F(MoveAcross, WorksWithoutSync) {
  for (const int error_number : {EINVAL, ENOSYS, EOPNOTSUPP, EBADF}) {
    WriteFileBytes(source_, "content");
    EXPECT_TRUE(RunWithout({{SYS_fsync, error_number, std::nullopt}},
                           [this] { return MoveWithoutReplacing(source_, target_); }));
    EXPECT_EQ(ReadFileBytes(target_), "content");
    std::filesystem::remove(Native(target_));
  }
}

// Each call of a copying move succeeds but reports failure, or is interrupted: at least one place
// keeps the whole content, nothing else remains, and a reported move has happened.
class CallOfACopy : public MoveAcross, public testing::WithParamInterface<long> {
 protected:
  // How often the move makes the call.
  int Calls() {
    int count = 0;
    WriteFileBytes(source_, "content");
    EXPECT_TRUE(Move([&count](const SystemCall& call) {
      ++count;
      return call.Perform();
    }));
    std::filesystem::remove(Native(target_));
    return count;
  }

  bool Move(const kyd_test::Instead& instead) {
    return RunWithInstead({static_cast<unsigned>(GetParam())}, instead,
                          [this] { return MoveWithoutReplacing(source_, target_); });
  }

  // A failing status query keeps both files, which is always safe; other failures keep one.
  void ExpectWhole(bool moved, int error_number, int which) const {
    const std::string where = std::to_string(error_number) + " at " + std::to_string(which);
    EXPECT_EQ(ReadFileBytes(moved ? target_ : source_), "content") << where;
    EXPECT_EQ(EntryCount(other_->Path()), PathExists(target_) ? 1U : 0U) << where;
    if (GetParam() == SYS_statx) {
      EXPECT_TRUE(!PathExists(target_) || ReadFileBytes(target_) == "content") << where;
    } else {
      EXPECT_NE(PathExists(source_), PathExists(target_)) << where;
    }
  }
};

TEST_P(CallOfACopy, ReportedAsFailedLosesNothing) {
  const int calls = Calls();
  EXPECT_GT(calls, 0);
  for (const int error_number : {ENOENT, EEXIST, EIO, ESTALE, EINTR}) {
    for (int which = 1; which <= calls; ++which) {
      WriteFileBytes(source_, "content");
      const bool moved = Move(DoneButFailing(error_number, which));
      ExpectWhole(moved, error_number, which);
      std::filesystem::remove(Native(target_));
    }
  }
}

TEST_P(CallOfACopy, FailingLosesNothing) {
  const int calls = Calls();
  for (const int error_number : {ENOENT, EEXIST, EIO, ESTALE, EACCES}) {
    for (int which = 1; which <= calls; ++which) {
      WriteFileBytes(source_, "content");
      const bool moved = Move(Failing(error_number, which));
      ExpectWhole(moved, error_number, which);
      std::filesystem::remove(Native(target_));
    }
  }
}

TEST_P(CallOfACopy, InterruptedIsRepeated) {
  const int calls = Calls();
  for (int which = 1; which <= calls; ++which) {
    WriteFileBytes(source_, "content");
    EXPECT_TRUE(Move(Failing(EINTR, which))) << which;
    EXPECT_FALSE(PathExists(source_));
    EXPECT_EQ(ReadFileBytes(target_), "content");
    EXPECT_EQ(EntryCount(other_->Path()), 1U);
    std::filesystem::remove(Native(target_));
  }
}

INSTANTIATE_TEST_SUITE_P(Calls, CallOfACopy,
                         testing::Values(SYS_openat, SYS_renameat2, SYS_statx, SYS_unlink,
                                         SYS_fsync, SYS_read, SYS_write),
                         [](const auto& call) { return "Call" + std::to_string(call.param); });

TEST_F(MoveAcross, KeepsBothIfTheSourceMayExist) {
  WriteFileBytes(source_, "content");
  EXPECT_TRUE(RunWithInstead({SYS_unlink, SYS_statx}, FailingBlindly(SYS_unlink), [this] {
    return !MoveWithoutReplacing(source_, target_) &&
           platform::LastError() == platform::kErrorGeneralFailure;
  }));
  EXPECT_EQ(ReadFileBytes(source_), "content");
  EXPECT_EQ(ReadFileBytes(target_), "content");
}

TEST_F(MoveAcross, KeepsASourceThatGrows) {
  WriteFileBytes(source_, std::string(std::size_t{16} << 20, 'x'));
  std::atomic<bool> started = false;
  std::atomic<bool> stop = false;
  std::size_t written = std::size_t{16} << 20;
  std::thread writer([&] {
    const int file = open(Native(source_).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    while (!stop) {
      written += write(file, "y", 1) == 1 ? 1 : 0;
      started = true;
    }
    close(file);
  });
  while (!started) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(MoveWithoutReplacing(source_, target_));
  EXPECT_EQ(platform::LastError(), platform::kErrorSharingViolation);
  stop = true;
  writer.join();
  EXPECT_EQ(std::filesystem::file_size(Native(source_)), written);
  EXPECT_EQ(EntryCount(other_->Path()), 0U);
}

TEST_F(MoveAcross, WorksWithoutRenameat2) {
  WriteFileBytes(source_, "content");
  EXPECT_TRUE(RunWithout({{SYS_renameat2, EINVAL, std::nullopt}},
                         [this] { return MoveWithoutReplacing(source_, target_); }));
  EXPECT_EQ(ReadFileBytes(target_), "content");
  EXPECT_FALSE(PathExists(source_));
  EXPECT_EQ(EntryCount(other_->Path()), 1U);
}

TEST_F(MoveAcross, KeepsASourceThatCannotBeRemoved) {
  WriteFileBytes(source_, "content");
  // Removing the source and undoing the target use the same call; but the copy is published, so
  // that one file always remains.
  EXPECT_TRUE(RunWithout({{SYS_unlink, EROFS, std::nullopt}}, [this] {
    return !MoveWithoutReplacing(source_, target_) &&
           platform::LastError() == platform::kErrorAccessDenied;
  }));
  EXPECT_EQ(ReadFileBytes(source_), "content");
}

}  // namespace
