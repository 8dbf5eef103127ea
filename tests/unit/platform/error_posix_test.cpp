#include <gtest/gtest.h>

#include <cerrno>

#include "platform/error.h"
#include "platform/fd_posix.h"
#include "platform/text.h"
#include "tests/unit/support/temp_folder.h"

namespace {

TEST(ErrnoTable, ReturnsTheWindowsErrorNumbers) {
  const struct {
    int error_number;
    unsigned expected;
  } cases[] = {
      {ENOENT, 2},      {ENOTDIR, 3},  {EACCES, 5},         {EPERM, 5},  {EROFS, 5},
      {EISDIR, 5},      {EAGAIN, 32},  {EWOULDBLOCK, 32},   {EBUSY, 32}, {ETXTBSY, 32},
      {ENOSPC, 112},    {EDQUOT, 112}, {EEXIST, 183},       {EIO, 31},   {ELOOP, 31},
      {EMFILE, 31},     {EINVAL, 31},  {ENAMETOOLONG, 206}, {EXDEV, 31}, {ESTALE, 31},
      {ENOTEMPTY, 183}, {0, 0},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(platform::NumberOfErrno(one.error_number), one.expected) << one.error_number;
  }
}

TEST(ErrnoTable, DistinguishesAMissingFileFromAMissingFolder) {
  const kyd_test::TempFolder folder;
  kyd_test::WriteFileBytes(folder / L"file", "");
  const struct {
    std::wstring path;
    unsigned expected;
  } cases[] = {
      {folder / L"missing", 2},
      {folder / L"missing/", 2},
      {folder / L"missing/file", 3},
      {folder / L"file/below", 3},
      {L"missing-in-the-current-folder", 2},
      {L"/missing-in-the-root", 2},
      {L"", 3},
      {L"/missing-in-the-root/x", 3},
  };
  for (const auto& one : cases) {
    platform::RecordErrno(ENOENT, platform::ToNativePath(one.path));
    EXPECT_EQ(platform::LastError(), one.expected) << platform::ToUtf8(one.path);
  }
}

TEST(ErrnoTable, OtherNumbersDoNotDependOnThePath) {
  platform::RecordErrno(EACCES, "/missing/missing");
  EXPECT_EQ(platform::LastError(), 5U);
}

}  // namespace
