#include <gtest/gtest.h>

#include "platform/error.h"
#include "platform/file.h"
#include "platform/text.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using kyd_test::PathExists;
using kyd_test::ReadFileBytes;
using kyd_test::WriteFileBytes;
using platform::MoveReplacing;
using platform::MoveWithoutReplacing;

class FileMoveTest : public testing::Test {
 protected:
  std::wstring Missing() const {
    return (folder_ / L"missing") + platform::kPathSeparator + L"file";
  }

  kyd_test::TempFolder folder_;
  std::wstring source_ = folder_ / L"a \x00E4.log";
  std::wstring target_ = folder_.MakeFolder(L"archive") + platform::kPathSeparator + L"a.log";
};

TEST_F(FileMoveTest, MovesIntoAnotherFolder) {
  WriteFileBytes(source_, "content");
  EXPECT_TRUE(MoveWithoutReplacing(source_, target_));
  EXPECT_FALSE(PathExists(source_));
  EXPECT_EQ(ReadFileBytes(target_), "content");
}

TEST_F(FileMoveTest, NeverReplacesAFile) {
  WriteFileBytes(source_, "new");
  WriteFileBytes(target_, "old");
  EXPECT_FALSE(MoveWithoutReplacing(source_, target_));
  EXPECT_EQ(platform::LastError(), platform::kErrorAlreadyExists);
  EXPECT_EQ(ReadFileBytes(source_), "new");
  EXPECT_EQ(ReadFileBytes(target_), "old");
}

TEST_F(FileMoveTest, NeverReplacesAFolder) {
  WriteFileBytes(source_, "new");
  EXPECT_FALSE(MoveWithoutReplacing(source_, folder_ / L"archive"));
  EXPECT_EQ(platform::LastError(), platform::kErrorAlreadyExists);
  EXPECT_EQ(ReadFileBytes(source_), "new");
}

TEST_F(FileMoveTest, ReportsAMissingFolder) {
  WriteFileBytes(source_, "content");
  EXPECT_FALSE(MoveWithoutReplacing(source_, Missing()));
  EXPECT_EQ(platform::LastError(), platform::kErrorPathNotFound);
  EXPECT_EQ(ReadFileBytes(source_), "content");
}

TEST_F(FileMoveTest, ReportsAMissingSource) {
  EXPECT_FALSE(MoveWithoutReplacing(source_, target_));
  EXPECT_EQ(platform::LastError(), platform::kErrorFileNotFound);
  EXPECT_FALSE(MoveWithoutReplacing(Missing(), target_));
  EXPECT_EQ(platform::LastError(), platform::kErrorPathNotFound);
  EXPECT_FALSE(PathExists(target_));
}

TEST_F(FileMoveTest, MovesAFolderWithItsContent) {
  const std::wstring folder = folder_.MakeFolder(L"x.log");
  WriteFileBytes(folder + platform::kPathSeparator + L"inside", "content");
  EXPECT_TRUE(MoveWithoutReplacing(folder, target_));
  EXPECT_EQ(ReadFileBytes(target_ + platform::kPathSeparator + L"inside"), "content");
  EXPECT_FALSE(PathExists(folder));
}

TEST_F(FileMoveTest, ReplacesAnOlderFile) {
  WriteFileBytes(source_, "new");
  WriteFileBytes(target_, "old");
  EXPECT_TRUE(MoveReplacing(source_, target_));
  EXPECT_FALSE(PathExists(source_));
  EXPECT_EQ(ReadFileBytes(target_), "new");
}

TEST_F(FileMoveTest, MovesToAFreeName) {
  WriteFileBytes(source_, "new");
  EXPECT_TRUE(MoveReplacing(source_, target_));
  EXPECT_EQ(ReadFileBytes(target_), "new");
}

TEST_F(FileMoveTest, ReplacesNothingIfTheSourceIsMissing) {
  WriteFileBytes(target_, "old");
  EXPECT_FALSE(MoveReplacing(source_, target_));
  EXPECT_EQ(platform::LastError(), platform::kErrorFileNotFound);
  EXPECT_EQ(ReadFileBytes(target_), "old");
  WriteFileBytes(source_, "new");
  EXPECT_FALSE(MoveReplacing(source_, Missing()));
  EXPECT_EQ(platform::LastError(), platform::kErrorPathNotFound);
  EXPECT_EQ(ReadFileBytes(source_), "new");
}

TEST_F(FileMoveTest, ReplacesNoFolder) {
  WriteFileBytes(source_, "new");
  const std::wstring folder = folder_.MakeFolder(L"folder");
  WriteFileBytes(folder + platform::kPathSeparator + L"inside", "content");
  EXPECT_FALSE(MoveReplacing(source_, folder));
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
  EXPECT_EQ(ReadFileBytes(folder + platform::kPathSeparator + L"inside"), "content");
}

}  // namespace
