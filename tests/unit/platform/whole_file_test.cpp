#include "platform/whole_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/error.h"
#include "platform/process.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using kyd_test::ReadFileBytes;
using kyd_test::WriteFileBytes;
using platform::FileReaders;

class WholeFile : public testing::Test {
 protected:
  bool Replace(const std::string& bytes) const {
    return platform::ReplaceWholeFile(path_, bytes.data(), bytes.size(), FileReaders::kEveryone);
  }
  bool Write(const std::string& bytes) const {
    return platform::WriteWholeFile(path_, bytes.data(), bytes.size(), FileReaders::kEveryone);
  }
  std::wstring Draft(int attempt) const {
    return path_ + L"." + std::to_wstring(platform::ProcessId()) + L"-" + std::to_wstring(attempt);
  }
  std::ptrdiff_t CountFiles() const {
    return std::distance(std::filesystem::directory_iterator(folder_.Path()), {});
  }

  kyd_test::TempFolder folder_;
  std::wstring path_ = folder_ / L"file \x00E4.dat";
};

TEST_F(WholeFile, IsWrittenUnderItsName) {
  const std::string bytes("a\0b\r\n", 5);
  ASSERT_TRUE(Write(bytes));
  EXPECT_EQ(ReadFileBytes(path_), bytes);
  EXPECT_EQ(CountFiles(), 1);
}

TEST_F(WholeFile, MayBeEmpty) {
  ASSERT_TRUE(Write(""));
  EXPECT_EQ(ReadFileBytes(path_), "");
}

TEST_F(WholeFile, ReplacesAnOlderFile) {
  WriteFileBytes(path_, "something that is longer");
  ASSERT_TRUE(Replace("new"));
  EXPECT_EQ(ReadFileBytes(path_), "new");
  EXPECT_EQ(CountFiles(), 1);
}

TEST_F(WholeFile, KeepsAnOlderFileIfItMustBeNew) {
  WriteFileBytes(path_, "old");
  EXPECT_FALSE(Write("new"));
  EXPECT_EQ(platform::LastError(), platform::kErrorAlreadyExists);
  EXPECT_EQ(ReadFileBytes(path_), "old");
  EXPECT_EQ(CountFiles(), 1);
}

TEST_F(WholeFile, NeedsItsFolder) {
  path_ = folder_ / L"missing" + path_.substr(folder_.Path().size());
  EXPECT_FALSE(Replace("new"));
  EXPECT_EQ(platform::LastError(), platform::kErrorPathNotFound);
}

TEST_F(WholeFile, DoesNotReplaceAFolder) {
  folder_.MakeFolder(L"folder");
  path_ = folder_ / L"folder";
  WriteFileBytes(folder_ / L"folder/in", "old");
  EXPECT_FALSE(Replace("new"));
  EXPECT_NE(platform::LastError(), 0U);
  EXPECT_EQ(CountFiles(), 1);
}

TEST_F(WholeFile, KeepsTheDraftOfAKilledProcess) {
  WriteFileBytes(Draft(0), "other");
  WriteFileBytes(Draft(1), "another");
  ASSERT_TRUE(Replace("new"));
  EXPECT_EQ(ReadFileBytes(path_), "new");
  EXPECT_EQ(ReadFileBytes(Draft(0)), "other");
  EXPECT_EQ(ReadFileBytes(Draft(1)), "another");
}

TEST_F(WholeFile, KeepsOtherDraftsIfAllNamesAreTaken) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    WriteFileBytes(Draft(attempt), "other");
  }
  EXPECT_FALSE(Replace("new"));
  EXPECT_EQ(platform::LastError(), platform::kErrorAlreadyExists);
  EXPECT_EQ(CountFiles(), 100);
}

}  // namespace
