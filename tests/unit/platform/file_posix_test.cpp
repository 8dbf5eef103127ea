#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <thread>

#include "platform/error.h"
#include "platform/file.h"
#include "platform/file_search.h"
#include "platform/text.h"
#include "tests/unit/support/failing_calls_posix.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using platform::File;

std::string Native(const std::wstring& path) {
  return platform::ToNativePath(path);
}

class FilePosixTest : public testing::Test {
 protected:
  kyd_test::TempFolder folder_;
  std::wstring path_ = folder_ / L"entry";
};

TEST_F(FilePosixTest, RefusesAPipeImmediately) {
  ASSERT_EQ(mkfifo(Native(path_).c_str(), 0600), 0);
  EXPECT_FALSE(File::OpenExclusive(path_).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
  const platform::CFileAccessSecurity security(0);
  EXPECT_FALSE(File::OpenForWriting(path_, security).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
  EXPECT_FALSE(platform::Utf8AppendFile(path_).IsOpen());
}

TEST_F(FilePosixTest, RefusesASocket) {
  const int server = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::string path = Native(path_);
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, path.c_str(), path.size());
  ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_FALSE(File::OpenExclusive(path_).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
  close(server);
}

TEST_F(FilePosixTest, OpensTheTargetOfALink) {
  kyd_test::WriteFileBytes(folder_ / L"target", "content");
  ASSERT_EQ(symlink("target", Native(path_).c_str()), 0);
  EXPECT_EQ(File::OpenExclusive(path_).Size(), 7U);
}

TEST_F(FilePosixTest, DanglingLinkIsAMissingFile) {
  ASSERT_EQ(symlink("nothing", Native(path_).c_str()), 0);
  EXPECT_FALSE(File::OpenExclusive(path_).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorFileNotFound);
}

TEST_F(FilePosixTest, ReportsANameThatIsTooLong) {
  const std::wstring path = folder_ / std::wstring(256, L'x');
  EXPECT_FALSE(File::OpenExclusive(path).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorFileNameTooLong);
  EXPECT_FALSE(platform::RemoveFile(path));
  EXPECT_EQ(platform::LastError(), platform::kErrorFileNameTooLong);
}

TEST_F(FilePosixTest, FileWithoutPermissionsIsDenied) {
  if (geteuid() == 0) {
    GTEST_SKIP() << "permissions do not apply to the superuser";
  }
  kyd_test::WriteFileBytes(path_, "content");
  ASSERT_EQ(chmod(Native(path_).c_str(), 0), 0);
  EXPECT_FALSE(File::OpenExclusive(path_).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
}

TEST_F(FilePosixTest, DoesNotOpenAFileOfUnknownType) {
  kyd_test::WriteFileBytes(path_, "content");
  EXPECT_TRUE(kyd_test::RunWithout(kyd_test::WithoutFstat(EIO), [this] {
    return !File::OpenExclusive(path_).IsOpen() &&
           platform::LastError() == platform::kErrorGeneralFailure;
  }));
}

// All functions that open a file with a lock.
bool OpensInEveryWay(const std::wstring& path) {
  const platform::CFileAccessSecurity security(0);
  bool open = File::OpenExclusive(path).IsOpen();
  open = File::OpenShared(path).IsOpen() && open;
  return File::OpenForWriting(path, security).IsOpen() && open;
}

TEST_F(FilePosixTest, WorksWithoutLockSupport) {
  kyd_test::WriteFileBytes(path_, "content");
  for (const int error_number : {EBADF, ENOLCK, ENOSYS, EOPNOTSUPP, EINVAL}) {
    EXPECT_TRUE(kyd_test::RunWithout({{SYS_flock, error_number, std::nullopt}}, [this] {
      return OpensInEveryWay(path_);
    })) << error_number;
  }
}

TEST_F(FilePosixTest, LockHeldByAnotherIsASharingViolation) {
  kyd_test::WriteFileBytes(path_, "content");
  EXPECT_TRUE(kyd_test::RunWithout({{SYS_flock, EWOULDBLOCK, std::nullopt}}, [this] {
    return !File::OpenExclusive(path_).IsOpen() &&
           platform::LastError() == platform::kErrorSharingViolation;
  }));
}

TEST_F(FilePosixTest, FailedLockIsNotASharingViolation) {
  kyd_test::WriteFileBytes(path_, "content");
  EXPECT_TRUE(kyd_test::RunWithout({{SYS_flock, EIO, std::nullopt}}, [this] {
    return !File::OpenExclusive(path_).IsOpen() &&
           platform::LastError() == platform::kErrorGeneralFailure;
  }));
}

// Only writers may take an exclusive lock, and shared locks are unavailable.
TEST_F(FilePosixTest, WorksIfSharedLocksAreUnavailableToo) {
  kyd_test::WriteFileBytes(path_, "content");
  const kyd_test::CallArgument exclusive{1, LOCK_EX | LOCK_NB};
  const kyd_test::CallArgument shared{1, LOCK_SH | LOCK_NB};
  EXPECT_TRUE(kyd_test::RunWithout({{SYS_flock, EBADF, exclusive}, {SYS_flock, ENOLCK, shared}},
                                   [this] { return File::OpenExclusive(path_).IsOpen(); }));
  EXPECT_TRUE(kyd_test::RunWithout(
      {{SYS_flock, EBADF, exclusive}, {SYS_flock, EWOULDBLOCK, shared}}, [this] {
        return !File::OpenExclusive(path_).IsOpen() &&
               platform::LastError() == platform::kErrorSharingViolation;
      }));
}

// Like a network file system: only writers may take an exclusive lock.
TEST_F(FilePosixTest, SharedLockDetectsAWriterIfExclusiveLocksAreUnavailable) {
  kyd_test::WriteFileBytes(path_, "content");
  const kyd_test::CallArgument exclusive{1, LOCK_EX | LOCK_NB};
  const auto open_exclusive = [&] {
    return kyd_test::RunWithout({{SYS_flock, EBADF, exclusive}},
                                [this] { return File::OpenExclusive(path_).IsOpen(); });
  };
  EXPECT_TRUE(open_exclusive());
  const platform::CFileAccessSecurity security(0);
  const File writer = File::OpenForWriting(path_, security);
  ASSERT_TRUE(writer.IsOpen());
  EXPECT_FALSE(open_exclusive());
}

TEST_F(FilePosixTest, RepeatsInterruptedCalls) {
  kyd_test::WriteFileBytes(folder_ / L"a.log", "content");
  for (const unsigned number :
       {SYS_openat, SYS_flock, SYS_read, SYS_write, SYS_unlink, SYS_getdents64}) {
    kyd_test::WriteFileBytes(path_, "content");
    EXPECT_TRUE(kyd_test::RunWithInstead({number}, kyd_test::Failing(EINTR), [this] {
      char bytes[8];
      platform::FileSearch search(folder_.Path(), L".log");
      bool done = search.First();
      done = File::OpenExclusive(path_).Read(bytes, 8) == 7U && done;
      const platform::CFileAccessSecurity security(0);
      done = File::OpenForWriting(path_, security).Write("x", 1) == 1U && done;
      return platform::RemoveFile(path_) && done;
    })) << number;
  }
}

TEST_F(FilePosixTest, RepeatsAnInterruptedFlush) {
  File file = File::CreateNew(path_, platform::FileReaders::kOwner);
  EXPECT_TRUE(kyd_test::RunWithInstead({SYS_fsync}, kyd_test::Failing(EINTR),
                                       [&] { return file.Flush(); }));
}

TEST_F(FilePosixTest, CreatesAndFindsFoldersDespiteInterruptedCalls) {
  int number = 0;
  for (const auto& instead : {kyd_test::Failing(EINTR), kyd_test::DoneButFailing(EINTR)}) {
    const std::wstring parent = folder_ / std::to_wstring(++number);
    EXPECT_TRUE(kyd_test::RunWithInstead(
        {SYS_mkdir}, instead, [&] { return platform::CreateFolders(parent + L"/folder"); }));
    EXPECT_TRUE(platform::IsFolder(parent + L"/folder"));
  }
  EXPECT_TRUE(kyd_test::RunWithInstead({SYS_newfstatat}, kyd_test::Failing(EINTR),
                                       [&] { return platform::IsFolder(folder_.Path()); }));
  kyd_test::WriteFileBytes(path_, "content");
  EXPECT_TRUE(kyd_test::RunWithInstead({SYS_newfstatat}, kyd_test::Failing(EINTR),
                                       [&] { return platform::FileExists(path_) == true; }));
}

TEST_F(FilePosixTest, FailsIfEveryCallIsInterrupted) {
  kyd_test::WriteFileBytes(path_, "content");
  EXPECT_FALSE(kyd_test::RunWithout({{SYS_read, EINTR, std::nullopt}}, [this] {
    char byte = 0;
    return File::OpenShared(path_).Read(&byte, 1).has_value();
  }));
}

TEST_F(FilePosixTest, ContinuesAfterAShortRead) {
  kyd_test::WriteFileBytes(path_, "content");
  const auto one_byte = [](const kyd_test::SystemCall& call) {
    kyd_test::SystemCall shorter = call;
    shorter.arguments[2] = call.arguments[2] > 0 ? 1 : 0;
    return shorter.Perform();
  };
  EXPECT_TRUE(kyd_test::RunWithInstead({SYS_read}, one_byte, [this] {
    char bytes[8] = {};
    return File::OpenShared(path_).Read(bytes, sizeof bytes) == 7U &&
           std::strcmp(bytes, "content") == 0;
  }));
}

TEST_F(FilePosixTest, WritesAWholeLogLineInShortWrites) {
  const auto one_byte = [](const kyd_test::SystemCall& call) {
    kyd_test::SystemCall shorter = call;
    shorter.arguments[2] = 1;
    return shorter.Perform();
  };
  EXPECT_TRUE(kyd_test::RunWithInstead({SYS_write}, one_byte, [this] {
    platform::Utf8AppendFile(path_).Write(L"line\n");
    return true;
  }));
  EXPECT_EQ(kyd_test::ReadFileBytes(path_), "\xEF\xBB\xBFline\r\n");
}

// ---- Leases

// The kernel's answer to an open that would have to wait for another process's lease.
long RefuseWithoutWaiting(const kyd_test::SystemCall& call) {
  return (call.arguments[2] & O_NONBLOCK) != 0 ? -EAGAIN : call.Perform();
}

TEST_F(FilePosixTest, WaitsForTheEndOfALease) {
  kyd_test::WriteFileBytes(path_, "content");
  EXPECT_TRUE(kyd_test::RunWithInstead({SYS_openat}, &RefuseWithoutWaiting,
                                       [this] { return OpensInEveryWay(path_); }));
  ASSERT_EQ(symlink("entry", Native(folder_ / L"link").c_str()), 0);
  EXPECT_TRUE(kyd_test::RunWithInstead({SYS_openat}, &RefuseWithoutWaiting, [this] {
    platform::Utf8AppendFile(path_).Write(L"\n");
    return File::OpenExclusive(folder_ / L"link").IsOpen();
  }));
  EXPECT_EQ(kyd_test::ReadFileBytes(path_), "content\r\n");
}

TEST_F(FilePosixTest, WaitsOnlyForRegularFiles) {
  ASSERT_EQ(mkfifo(Native(path_).c_str(), 0600), 0);
  EXPECT_TRUE(kyd_test::RunWithInstead({SYS_openat}, &RefuseWithoutWaiting, [this] {
    return !File::OpenExclusive(path_).IsOpen() &&
           platform::LastError() == platform::kErrorSharingViolation;
  }));
}

int lease = -1;

void GiveUpLease(int /*signal*/) {
  fcntl(lease, F_SETLEASE, F_UNLCK);
}

TEST_F(FilePosixTest, OpensAFileThatAnotherProgramHasLeased) {
  kyd_test::WriteFileBytes(path_, "content");
  lease = open(Native(path_).c_str(), O_RDONLY | O_CLOEXEC);
  struct sigaction giving_up = {};
  struct sigaction earlier = {};
  giving_up.sa_handler = &GiveUpLease;
  sigaction(SIGIO, &giving_up, &earlier);
  const bool leased = fcntl(lease, F_SETLEASE, F_RDLCK) == 0;
  if (leased) {
    // A reader's lease must be released before any write.
    const platform::CFileAccessSecurity security(0);
    EXPECT_TRUE(File::OpenForWriting(path_, security).IsOpen());
  }
  sigaction(SIGIO, &earlier, nullptr);
  close(lease);
  if (!leased) {
    GTEST_SKIP() << "this file system does not support leases";
  }
}

// ---- Removing

TEST_F(FilePosixTest, FileThatIsGoneCountsAsRemoved) {
  for (const int error_number : {EIO, ESTALE, EINTR}) {
    kyd_test::WriteFileBytes(path_, "content");
    EXPECT_TRUE(kyd_test::RunWithInstead({SYS_unlink}, kyd_test::DoneButFailing(error_number),
                                         [this] { return platform::RemoveFile(path_); }))
        << error_number;
    EXPECT_FALSE(kyd_test::PathExists(path_));
  }
}

TEST_F(FilePosixTest, DoesNotRepeatACompletedRemoval) {
  kyd_test::WriteFileBytes(path_, "content");
  // The clock of a file system may have a resolution of 10 ms.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  int calls = 0;
  const auto instead = [&](kyd_test::SystemCall call) -> long {
    const long result = call.Perform();
    if (++calls > 1 || result < 0) {
      return result;
    }
    kyd_test::WriteFileBytes(path_, "of another");
    return -long{EINTR};
  };
  // The result depends on whether the new file reuses the inode of the old one.
  kyd_test::RunWithInstead({SYS_unlink}, instead, [this] {
    static_cast<void>(platform::RemoveFile(path_));
    return true;
  });
  EXPECT_EQ(kyd_test::ReadFileBytes(path_), "of another");
}

TEST_F(FilePosixTest, ReportsWhyAReadFailed) {
  kyd_test::WriteFileBytes(path_, "content");
  EXPECT_TRUE(kyd_test::RunWithout({{SYS_read, EPERM, std::nullopt}}, [this] {
    char byte = 0;
    return !File::OpenShared(path_).Read(&byte, 1) &&
           platform::LastError() == platform::kErrorAccessDenied;
  }));
}

TEST_F(FilePosixTest, ReportsAFullDisk) {
  EXPECT_TRUE(kyd_test::RunWithout({{SYS_write, ENOSPC, std::nullopt}}, [this] {
    const platform::CFileAccessSecurity security(0);
    return !File::OpenForWriting(path_, security).Write("x", 1) &&
           platform::LastError() == platform::kErrorDiskFull;
  }));
}

TEST_F(FilePosixTest, SearchReportsWhyAFolderCannotBeRead) {
  kyd_test::WriteFileBytes(folder_ / L"entry.log", "content");
  EXPECT_TRUE(kyd_test::RunWithout({{SYS_getdents64, EACCES, std::nullopt}}, [this] {
    platform::FileSearch search(folder_.Path(), L".log");
    return !search.First() && platform::LastError() == platform::kErrorAccessDenied;
  }));
}

TEST_F(FilePosixTest, WriteAllContinuesAfterShortWrites) {
  for (const long most : {1, 2, 3, 7, 100}) {
    EXPECT_TRUE(kyd_test::RunWithInstead(
        {SYS_write},
        [most](kyd_test::SystemCall call) {
          call.arguments[2] = std::min(call.arguments[2], most);
          return call.Perform();
        },
        [this] {
          File file = File::OpenForWriting(path_, platform::CFileAccessSecurity(0));
          return file.WriteAll("1234567", 7);
        }));
    EXPECT_EQ(kyd_test::ReadFileBytes(path_), "1234567");
    ASSERT_TRUE(platform::RemoveFile(path_));
  }
}

TEST_F(FilePosixTest, WriteAllStopsAtAFailureAndAtAWriteOfZeroBytes) {
  for (const long end : {-long{ENOSPC}, 0L}) {
    int calls = 0;
    EXPECT_TRUE(kyd_test::RunWithInstead(
        {SYS_write},
        [end, &calls](kyd_test::SystemCall call) {
          call.arguments[2] = 2;
          return ++calls <= 2 ? call.Perform() : end;
        },
        [this] {
          File file = File::OpenForWriting(path_, platform::CFileAccessSecurity(0));
          return !file.WriteAll("1234567", 7);
        }));
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(kyd_test::ReadFileBytes(path_), "1234");
    ASSERT_TRUE(platform::RemoveFile(path_));
  }
}

TEST_F(FilePosixTest, OpenFilesAreNotInherited) {
  kyd_test::WriteFileBytes(path_, "content");
  const int next = dup(STDIN_FILENO);  // the descriptor that the file will get
  ASSERT_GE(next, 0);
  close(next);
  const File file = File::OpenExclusive(path_);
  ASSERT_TRUE(file.IsOpen());
  EXPECT_EQ(fcntl(next, F_GETFD), FD_CLOEXEC);
}

TEST_F(FilePosixTest, FilesWithNonUtf8NamesAreFoundOpenedMovedAndRemoved) {
  const std::wstring name = L"caf\xDCE9.log";
  kyd_test::WriteFileBytes(folder_ / name, "content");
  EXPECT_EQ(access((Native(folder_.Path()) + "/caf\xE9.log").c_str(), F_OK), 0);
  platform::FileSearch search(folder_.Path(), L".log");
  ASSERT_TRUE(search.First());
  EXPECT_EQ(search.Current().name, name);
  EXPECT_EQ(File::OpenExclusive(folder_ / search.Current().name).Size(), 7U);
  EXPECT_TRUE(platform::MoveWithoutReplacing(folder_ / name, folder_ / (name + L".bak")));
  EXPECT_EQ(access((Native(folder_.Path()) + "/caf\xE9.log.bak").c_str(), F_OK), 0);
  EXPECT_TRUE(platform::RemoveFile(folder_ / (name + L".bak")));
}

TEST_F(FilePosixTest, SearchComparesTheWholeExtension) {
  kyd_test::WriteFileBytes(folder_ / L"a.log2", "");
  platform::FileSearch search(folder_.Path(), L".log");
  EXPECT_FALSE(search.First());
}

TEST_F(FilePosixTest, SearchDistinguishesLinksToFoldersFromOtherEntries) {
  folder_.MakeFolder(L"real");
  ASSERT_EQ(symlink("real", Native(folder_ / L"a.log").c_str()), 0);
  ASSERT_EQ(symlink("nothing", Native(folder_ / L"b.log").c_str()), 0);
  ASSERT_EQ(mkfifo(Native(folder_ / L"c.log").c_str(), 0600), 0);
  platform::FileSearch search(folder_.Path(), L".log");
  int count = 0;
  for (bool found = search.First(); found; found = search.Next()) {
    EXPECT_EQ(search.Current().is_folder, search.Current().name == L"a.log");
    ++count;
  }
  EXPECT_EQ(count, 3);
}

TEST_F(FilePosixTest, NewFilesAndFoldersFollowTheUmask) {
  const mode_t earlier = umask(0027);
  const platform::CFileAccessSecurity security(0);
  EXPECT_TRUE(File::OpenForWriting(path_, security).IsOpen());
  EXPECT_TRUE(platform::CreateFolders(folder_ / L"a/b"));
  umask(earlier);
  struct stat status = {};
  ASSERT_EQ(stat(Native(path_).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640U);
  ASSERT_EQ(stat(Native(folder_ / L"a/b").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0750U);
}

}  // namespace
