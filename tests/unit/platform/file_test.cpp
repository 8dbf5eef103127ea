#include "platform/file.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>

#include "platform/error.h"
#include "platform/text.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using kyd_test::ReadFileBytes;
using kyd_test::WriteFileBytes;
using platform::CFileAccessSecurity;
using platform::File;

class FileTest : public testing::Test {
 protected:
  File OpenForWriting() const { return File::OpenForWriting(path_, security_); }

  kyd_test::TempFolder folder_;
  std::wstring path_ = folder_ / L"file \x00E4.dat";
  CFileAccessSecurity security_{CFileAccessSecurity::kDefault};
};

TEST_F(FileTest, ReadsTheContent) {
  WriteFileBytes(path_, std::string("a\0b\r\n\x1A", 6));
  File file = File::OpenExclusive(path_);
  ASSERT_TRUE(file.IsOpen());
  EXPECT_EQ(file.Size(), 6U);
  std::array<char, 16> buffer = {};
  EXPECT_EQ(file.Read(buffer.data(), 2), 2U);
  EXPECT_EQ(file.Read(buffer.data() + 2, buffer.size() - 2), 4U);
  EXPECT_EQ(std::string(buffer.data(), 6), std::string("a\0b\r\n\x1A", 6));
  EXPECT_EQ(file.Read(buffer.data(), buffer.size()), 0U);
  EXPECT_EQ(file.Read(buffer.data(), 0), 0U);
}

TEST_F(FileTest, EmptyFileHasNoBytes) {
  WriteFileBytes(path_, "");
  File file = File::OpenShared(path_);
  ASSERT_TRUE(file.IsOpen());
  EXPECT_EQ(file.Size(), 0U);
  char byte = 0;
  EXPECT_EQ(file.Read(&byte, 1), 0U);
}

TEST_F(FileTest, ReadsALargeFileInOneCall) {
  std::string content;
  for (unsigned i = 0; i < 3'000'000; ++i) {
    content += static_cast<char>(i * 7919 >> 8);
  }
  WriteFileBytes(path_, content);
  File file = File::OpenShared(path_);
  std::string read(content.size() + 1, '\0');
  EXPECT_EQ(file.Read(read.data(), read.size()), content.size());
  read.pop_back();
  EXPECT_TRUE(read == content);
}

TEST_F(FileTest, ReadsFromAnyOffset) {
  WriteFileBytes(path_, "0123456789");
  File file = File::OpenUnobtrusive(path_);
  std::array<char, 4> buffer = {};
  EXPECT_EQ(file.ReadAt(7, buffer.data(), 2), 2U);
  EXPECT_EQ(std::string(buffer.data()), "78");
  EXPECT_EQ(file.ReadAt(0, buffer.data(), 3), 3U);
  EXPECT_EQ(std::string(buffer.data()), "012");
  EXPECT_EQ(file.ReadAt(8, buffer.data(), buffer.size()), 2U);
  EXPECT_EQ(std::string(buffer.data(), 2), "89");
  for (const std::uint64_t place : {10ULL, 1ULL << 40, ~0ULL >> 1, ~0ULL}) {
    EXPECT_EQ(file.ReadAt(place, buffer.data(), buffer.size()), 0U) << place;
  }
  EXPECT_FALSE(File().ReadAt(0, buffer.data(), 1));
}

TEST_F(FileTest, WritingStartsAtTheBeginningAndKeepsTheRest) {
  WriteFileBytes(path_, "12345");
  File file = OpenForWriting();
  ASSERT_TRUE(file.IsOpen());
  EXPECT_EQ(file.Write("ab", 2), 2U);
  file.Close();
  EXPECT_EQ(ReadFileBytes(path_), "ab345");
}

TEST_F(FileTest, AppendsAfterSeekingToTheEnd) {
  for (const char* const text : {"first", "second"}) {
    File file = OpenForWriting();
    ASSERT_TRUE(file.IsOpen());
    ASSERT_TRUE(file.SeekToEnd());
    EXPECT_EQ(file.Write(text, std::string_view(text).size()), std::string_view(text).size());
  }
  EXPECT_EQ(ReadFileBytes(path_), "firstsecond");
}

TEST_F(FileTest, FindsTheEndBeyond4GiB) {
  // A sparse file.
  constexpr std::uint64_t kSize = (std::uint64_t{4} << 30) + 5;
  WriteFileBytes(path_, "");
  std::filesystem::resize_file(platform::ToNativePath(path_), kSize);
  File file = OpenForWriting();
  EXPECT_EQ(file.Size(), kSize);
  EXPECT_TRUE(file.SeekToEnd());
  EXPECT_EQ(file.Write("x", 1), 1U);
  EXPECT_EQ(file.Size(), kSize + 1);
}

TEST_F(FileTest, WritesNothingForNoBytes) {
  File file = OpenForWriting();
  EXPECT_EQ(file.Write("", 0), 0U);
  file.Close();
  EXPECT_EQ(ReadFileBytes(path_), "");
}

TEST_F(FileTest, OpensNoMissingFile) {
  EXPECT_FALSE(File::OpenExclusive(path_).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorFileNotFound);
  EXPECT_FALSE(File::OpenShared(path_).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorFileNotFound);
  EXPECT_FALSE(kyd_test::PathExists(path_));
}

TEST_F(FileTest, OpensNothingInAMissingFolder) {
  const std::wstring path = (folder_ / L"missing") + platform::kPathSeparator + L"file";
  EXPECT_FALSE(File::OpenExclusive(path).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorPathNotFound);
  EXPECT_FALSE(File::OpenForWriting(path, security_).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorPathNotFound);
}

TEST_F(FileTest, OpensNoFolder) {
  EXPECT_FALSE(File::OpenExclusive(folder_.Path()).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
  EXPECT_FALSE(File::OpenShared(folder_.Path()).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
  EXPECT_FALSE(File::OpenForWriting(folder_.Path(), security_).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
}

TEST_F(FileTest, OpensNoDevice) {
#ifdef _WIN32
  const std::wstring device = L"NUL";
#else
  const std::wstring device = L"/dev/null";
#endif
  EXPECT_FALSE(File::OpenExclusive(device).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
}

// Which opens may coexist. Any writer behaves like a file that is opened for writing here.
TEST_F(FileTest, SharesAFileOnlyBetweenReaders) {
  WriteFileBytes(path_, "content");
  enum Way { kExclusive, kShared, kWriting };
  const auto open = [this](Way way) {
    return way == kExclusive ? File::OpenExclusive(path_)
           : way == kShared  ? File::OpenShared(path_)
                             : OpenForWriting();
  };
  for (const Way first : {kExclusive, kShared, kWriting}) {
    for (const Way second : {kExclusive, kShared, kWriting}) {
      SCOPED_TRACE(testing::Message() << first << " then " << second);
      {
        const File one = open(first);
        ASSERT_TRUE(one.IsOpen());
        const File two = open(second);
        const bool expected = first == kShared && second == kShared;
        EXPECT_EQ(two.IsOpen(), expected);
        if (!expected) {
          EXPECT_EQ(platform::LastError(), platform::kErrorSharingViolation);
        }
      }
      EXPECT_TRUE(open(second).IsOpen());
    }
  }
}

TEST_F(FileTest, ClosesOnce) {
  WriteFileBytes(path_, "content");
  File file = File::OpenExclusive(path_);
  file.Close();
  EXPECT_FALSE(file.IsOpen());
  char byte = 0;
  EXPECT_FALSE(file.Size());
  EXPECT_FALSE(file.Read(&byte, 1));
  EXPECT_FALSE(file.Write(&byte, 1));
  EXPECT_FALSE(file.SeekToEnd());
  file.Close();
  EXPECT_TRUE(File::OpenExclusive(path_).IsOpen());
}

TEST_F(FileTest, MovesToAnotherOwner) {
  WriteFileBytes(path_, "content");
  File first = File::OpenExclusive(path_);
  File second = std::move(first);
  // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move): on purpose
  EXPECT_FALSE(first.IsOpen());
  EXPECT_EQ(second.Size(), 7U);
  second = File();
  EXPECT_TRUE(File::OpenExclusive(path_).IsOpen());
}

TEST_F(FileTest, FailsToWriteToAFileOpenForReading) {
  WriteFileBytes(path_, "content");
  File file = File::OpenShared(path_);
  EXPECT_FALSE(file.Write("x", 1));
}

TEST_F(FileTest, RemovesAFile) {
  WriteFileBytes(path_, "content");
  EXPECT_TRUE(platform::RemoveFile(path_));
  EXPECT_FALSE(kyd_test::PathExists(path_));
  EXPECT_FALSE(platform::RemoveFile(path_));
  EXPECT_EQ(platform::LastError(), platform::kErrorFileNotFound);
}

TEST_F(FileTest, RemovesNoFolder) {
  const std::wstring folder = folder_.MakeFolder(L"folder");
  EXPECT_FALSE(platform::RemoveFile(folder));
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
  EXPECT_TRUE(platform::IsFolder(folder));
  EXPECT_FALSE(platform::RemoveFile((folder_ / L"missing") + platform::kPathSeparator + L"file"));
  EXPECT_EQ(platform::LastError(), platform::kErrorPathNotFound);
}

TEST_F(FileTest, UnobtrusiveReadIgnoresOtherUsersOfTheFile) {
  WriteFileBytes(path_, "content");
  std::array<char, 8> buffer = {};
  {
    const File writer = OpenForWriting();
    ASSERT_TRUE(writer.IsOpen());
    File reader = File::OpenUnobtrusive(path_);
    ASSERT_TRUE(reader.IsOpen());
    EXPECT_EQ(reader.Read(buffer.data(), buffer.size()), 7U);
  }
  const File reader = File::OpenUnobtrusive(path_);
  ASSERT_TRUE(reader.IsOpen());
  EXPECT_TRUE(OpenForWriting().IsOpen());
  EXPECT_TRUE(platform::RemoveFile(path_));
}

TEST_F(FileTest, UnobtrusiveReadOpensOnlyFiles) {
  EXPECT_FALSE(File::OpenUnobtrusive(path_).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorFileNotFound);
  EXPECT_FALSE(File::OpenUnobtrusive(folder_.Path()).IsOpen());
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
}

TEST_F(FileTest, ReportsWhetherAFileExists) {
  EXPECT_EQ(platform::FileExists(path_), false);
  WriteFileBytes(path_, "");
  EXPECT_EQ(platform::FileExists(path_), true);
  EXPECT_EQ(platform::FileExists(folder_.Path()), false);
  EXPECT_EQ(platform::FileExists((folder_ / L"missing") + platform::kPathSeparator + L"file"),
            false);
#ifndef _WIN32
  // Windows treats an invalid name like a missing one.
  EXPECT_EQ(platform::FileExists(folder_ / std::wstring(1000, L'a')), std::nullopt);
#endif
}

}  // namespace
