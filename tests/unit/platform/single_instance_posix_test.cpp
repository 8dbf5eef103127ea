#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>

#include "platform/error.h"
#include "platform/single_instance.h"
#include "platform/single_instance_posix.h"
#include "platform/text.h"
#include "tests/unit/support/failing_calls_posix.h"
#include "tests/unit/support/test_sysroot.h"

namespace {

constexpr wchar_t kName[] = L"KydPlatformTestsMutexString";

std::string LockFile(const kyd_test::TestSysroot& sysroot) {
  return platform::ToNativePath(sysroot.Folder() / L"run/lock/") + platform::ToUtf8(kName);
}

TEST(SingleInstanceFile, StaysAndCanBeLockedByOthersWithAnyUmask) {
  const kyd_test::TestSysroot sysroot;
  const mode_t earlier = umask(0077);
  {
    const platform::SingleInstance instance(kName);
    EXPECT_TRUE(instance.IsOwner());
  }
  EXPECT_EQ(umask(earlier), mode_t{0077});
  struct stat status = {};
  ASSERT_EQ(stat(LockFile(sysroot).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644U);
}

TEST(SingleInstanceFile, CanBeLockedByOthersAfterInterruptedCreation) {
  const kyd_test::TestSysroot sysroot;
  const mode_t earlier = umask(0077);
  int creations = 0;
  const auto interrupted = [&](const kyd_test::SystemCall& call) -> long {
    const long result = call.Perform();
    if ((call.arguments[2] & O_CREAT) == 0 || result < 0 || ++creations > 1) {
      return result;
    }
    close(static_cast<int>(result));
    return -long{EINTR};
  };
  EXPECT_TRUE(kyd_test::RunWithInstead({SYS_openat}, interrupted,
                                       [] { return platform::SingleInstance(kName).IsOwner(); }));
  umask(earlier);
  EXPECT_EQ(creations, 1);
  struct stat status = {};
  ASSERT_EQ(stat(LockFile(sysroot).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644U);
}

TEST(SingleInstanceFile, IsFreeAfterItsOwnerWasKilled) {
  const kyd_test::TestSysroot sysroot;
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const platform::SingleInstance instance(kName);
    const char answer = instance.IsOwner() ? 'y' : 'n';
    (void)!write(ready[1], &answer, 1);
    for (;;) {
      pause();
    }
  }
  char answer = '?';
  EXPECT_EQ(read(ready[0], &answer, 1), 1);
  EXPECT_EQ(answer, 'y');
  EXPECT_FALSE(platform::SingleInstance(kName).IsOwner());
  kill(child, SIGKILL);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(platform::SingleInstance(kName).IsOwner());
  close(ready[0]);
  close(ready[1]);
}

TEST(SingleInstanceFile, HasNoOwnerWithoutItsFolder) {
  const kyd_test::TestSysroot sysroot;
  std::filesystem::remove(std::filesystem::path(LockFile(sysroot)).parent_path());
  EXPECT_FALSE(platform::SingleInstance(kName).IsOwner());
}

TEST(SingleInstanceFile, HasNoOwnerIfItCannotBeCreated) {
  const kyd_test::TestSysroot sysroot;
  constexpr int kMaking =
      O_RDONLY | O_NOFOLLOW | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  // With the second result the file seems to appear and disappear with every check, which must not
  // loop forever.
  for (const int error_number : {EROFS, EEXIST}) {
    EXPECT_TRUE(
        kyd_test::RunWithout({{SYS_openat, error_number, kyd_test::CallArgument{2, kMaking}}}, [=] {
          const platform::SingleInstance instance(kName);
          return !instance.IsOwner() &&
                 platform::LastError() == (error_number == EROFS ? platform::kErrorAccessDenied
                                                                 : platform::kErrorAlreadyExists);
        }));
  }
}

// ---- Where files have no locks

class WithoutLocks : public testing::TestWithParam<int> {
 protected:
  bool Run(const std::function<bool()>& function) const {
    return kyd_test::RunWithout({{SYS_flock, GetParam(), std::nullopt}}, function);
  }
};

TEST_P(WithoutLocks, HasOneOwnerAtATime) {
  const kyd_test::TestSysroot sysroot;
  EXPECT_TRUE(Run([] {
    const platform::SingleInstance first(kName);
    const platform::SingleInstance second(kName);
    return first.IsOwner() && !second.IsOwner() &&
           platform::LastError() == platform::kErrorAlreadyExists;
  }));
  EXPECT_TRUE(Run([] { return platform::SingleInstance(kName).IsOwner(); }));
}

TEST_P(WithoutLocks, OtherFilesHaveTheirOwnOwners) {
  EXPECT_TRUE(Run([] {
    const kyd_test::TestSysroot sysroot;
    const platform::SingleInstance first(kName);
    const platform::SingleInstance other(L"KydPlatformTestsOtherString");
    return first.IsOwner() && other.IsOwner();
  }));
}

INSTANTIATE_TEST_SUITE_P(FileSystems, WithoutLocks,
                         testing::Values(EBADF, ENOLCK, ENOSYS, EOPNOTSUPP));

TEST(SingleInstanceFile, HasNoOwnerWithoutLockAndName) {
  const kyd_test::TestSysroot sysroot;
  EXPECT_TRUE(kyd_test::RunWithout(
      {{SYS_flock, ENOLCK, std::nullopt}, {SYS_socket, EAFNOSUPPORT, std::nullopt}},
      [] { return !platform::SingleInstance(kName).IsOwner(); }));
}

TEST(SingleInstanceFile, HasNoOwnerIfLockingFails) {
  const kyd_test::TestSysroot sysroot;
  EXPECT_TRUE(kyd_test::RunWithout({{SYS_flock, EIO, std::nullopt}}, [] {
    return !platform::SingleInstance(kName).IsOwner() &&
           platform::LastError() == platform::kErrorGeneralFailure;
  }));
}

TEST(SingleInstanceFile, IsLockedDespiteInterruption) {
  const kyd_test::TestSysroot sysroot;
  EXPECT_TRUE(kyd_test::RunWithInstead({SYS_flock}, kyd_test::Failing(EINTR),
                                       [] { return platform::SingleInstance(kName).IsOwner(); }));
}

TEST(SingleInstanceFile, IsNeverALinkOrAFolder) {
  const kyd_test::TestSysroot sysroot;
  const std::string target = LockFile(sysroot) + ".target";
  ASSERT_EQ(symlink(target.c_str(), LockFile(sysroot).c_str()), 0);
  EXPECT_FALSE(platform::SingleInstance(kName).IsOwner());
  EXPECT_FALSE(std::filesystem::exists(target));
  ASSERT_EQ(unlink(LockFile(sysroot).c_str()), 0);
  ASSERT_EQ(mkdir(LockFile(sysroot).c_str(), 0755), 0);
  EXPECT_FALSE(platform::SingleInstance(kName).IsOwner());
}

TEST(OwnerOfInstance, IsSeenWhereFilesCannotBeLocked) {
  using platform::InstanceOwner;
  const kyd_test::TestSysroot sysroot;
  EXPECT_TRUE(kyd_test::RunWithout({{SYS_flock, ENOLCK, {}}}, [] {
    const platform::SingleInstance owner(kName);
    return owner.IsOwner() && platform::OwnerOfInstance(kName) == InstanceOwner::kAnotherProcess;
  }));
  EXPECT_EQ(platform::OwnerOfInstance(kName), InstanceOwner::kNone);
}

TEST(OwnerOfInstance, CreatesNoFileAndReportsAnUnavailableName) {
  using platform::InstanceOwner;
  const kyd_test::TestSysroot sysroot;
  EXPECT_EQ(platform::OwnerOfInstance(kName), InstanceOwner::kNone);
  EXPECT_FALSE(std::filesystem::exists(LockFile(sysroot)));
  ASSERT_EQ(mkdir(LockFile(sysroot).c_str(), 0755), 0);
  EXPECT_EQ(platform::OwnerOfInstance(kName), InstanceOwner::kUnavailable);
  std::filesystem::remove_all(std::filesystem::path(LockFile(sysroot)).parent_path());
  EXPECT_EQ(platform::OwnerOfInstance(kName), InstanceOwner::kUnavailable);
}

TEST(HoldsExclusiveFlock, MatchesTheFileAndTheTypeOfLock) {
  const char* const locks =
      "1: FLOCK  ADVISORY  WRITE 4711 fd:01:1234 0 EOF\n"
      "2: -> FLOCK  ADVISORY  WRITE 4712 fd:01:55 0 EOF\n"
      "3: FLOCK  ADVISORY  READ 4713 fd:01:66 0 EOF\n"
      "4: POSIX  ADVISORY  WRITE 4714 fd:01:77 0 EOF\n"
      "5: FLOCK\n"
      "6: FLOCK  ADVISORY  WRITE -1 00:2b:18446744073709551615 0 EOF";
  EXPECT_TRUE(platform::HoldsExclusiveFlock(locks, 0xFD, 1, 1234));
  EXPECT_TRUE(platform::HoldsExclusiveFlock(locks, 0, 0x2B, ~std::uint64_t{0}));
  EXPECT_FALSE(platform::HoldsExclusiveFlock(locks, 0xFD, 2, 1234));
  EXPECT_FALSE(platform::HoldsExclusiveFlock(locks, 0xFC, 1, 1234));
  for (const std::uint64_t inode : {123U, 55U, 66U, 77U}) {
    EXPECT_FALSE(platform::HoldsExclusiveFlock(locks, 0xFD, 1, inode)) << inode;
  }
  EXPECT_FALSE(platform::HoldsExclusiveFlock("", 0xFD, 1, 1234));
}

}  // namespace
