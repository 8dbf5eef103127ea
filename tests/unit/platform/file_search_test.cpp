#include "platform/file_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <vector>

#include "platform/clock.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/text.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using platform::FileSearch;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class FileSearchTest : public testing::Test {
 protected:
  void MakeFile(const std::wstring& name) const { kyd_test::WriteFileBytes(folder_ / name, ""); }

  std::vector<std::wstring> Names(const std::wstring& ending) const {
    std::vector<std::wstring> names;
    FileSearch search(folder_.Path(), ending);
    for (bool found = search.First(); found; found = search.Next()) {
      names.push_back(search.Current().name);
    }
    return names;
  }

  kyd_test::TempFolder folder_;
};

TEST_F(FileSearchTest, ReturnsEveryEntryWithItsType) {
  MakeFile(L"file");
  MakeFile(L"b.txt");
  folder_.MakeFolder(L"folder");
  folder_.MakeFolder(L"folder.with.dots");
  std::map<std::wstring, bool> found;
  FileSearch search(folder_.Path(), L"");
  for (bool more = search.First(); more; more = search.Next()) {
    found[search.Current().name] = search.Current().is_folder;
  }
  const std::map<std::wstring, bool> expected = {{L".", true},      {L"..", true},
                                                 {L"file", false},  {L"b.txt", false},
                                                 {L"folder", true}, {L"folder.with.dots", true}};
  EXPECT_EQ(found, expected);
}

TEST_F(FileSearchTest, ReturnsNamesWithTheExtension) {
  for (const wchar_t* const name : {L"a.log", L"B.LOG", L"c.Log", L"d.log.bak", L"e.txt", L"elog",
                                    L"\x00E4 \x20AC.log", L".log", L"g.bak.log"}) {
    MakeFile(name);
  }
  folder_.MakeFolder(L"folder.log");
  EXPECT_THAT(Names(L".log"),
              UnorderedElementsAre(L"a.log", L"B.LOG", L"c.Log", L"\x00E4 \x20AC.log", L".log",
                                   L"g.bak.log", L"folder.log"));
}

TEST_F(FileSearchTest, EmptyFolderHasOnlyTheDotEntries) {
  EXPECT_THAT(Names(L""), UnorderedElementsAre(L".", L".."));
  EXPECT_THAT(Names(L".log"), IsEmpty());
}

TEST_F(FileSearchTest, ReportsWhyNothingWasFound) {
  FileSearch search(folder_.Path(), L".log");
  EXPECT_FALSE(search.First());
  EXPECT_EQ(platform::LastError(), platform::kErrorFileNotFound);
  EXPECT_EQ(search.Failure(), 0U);
  for (const wchar_t* const ending : {L".log", L""}) {
    search = FileSearch(folder_ / L"missing", ending);
    EXPECT_FALSE(search.First());
    EXPECT_EQ(platform::LastError(), platform::kErrorPathNotFound);
    EXPECT_EQ(search.Failure(), platform::kErrorPathNotFound);
  }
}

TEST_F(FileSearchTest, FindsNothingInAFile) {
  MakeFile(L"file");
  FileSearch search(folder_ / L"file", L"");
  EXPECT_FALSE(search.First());
}

TEST_F(FileSearchTest, LastEntryStaysCurrentAtTheEnd) {
  MakeFile(L"only.log");
  FileSearch search(folder_.Path(), L".log");
  ASSERT_TRUE(search.First());
  EXPECT_FALSE(search.Next());
  EXPECT_EQ(platform::LastError(), platform::kErrorNoMoreFiles);
  EXPECT_EQ(search.Failure(), 0U);
  EXPECT_EQ(search.Current().name, L"only.log");
  EXPECT_FALSE(search.Next());
}

TEST_F(FileSearchTest, ContinuesWhileEntriesAreMoved) {
  std::vector<std::wstring> expected;
  for (int i = 0; i < 1000; ++i) {
    const std::wstring name = platform::FromUtf8("file " + std::to_string(i) + ".log");
    MakeFile(name);
    expected.push_back(name);
  }
  std::vector<std::wstring> names;
  FileSearch search(folder_.Path(), L".log");
  for (bool found = search.First(); found;) {
    const std::wstring name = search.Current().name;
    names.push_back(name);
    // As in the upload: find the next file, then move the current one.
    found = search.Next();
    kyd_test::WriteFileBytes(folder_ / (name + L".bak"), "");
    ASSERT_EQ(std::remove(platform::ToUtf8(folder_ / name).c_str()), 0);
  }
  EXPECT_THAT(names, testing::UnorderedElementsAreArray(expected));
}

TEST_F(FileSearchTest, CanBeStartedAgain) {
  MakeFile(L"a.log");
  FileSearch search(folder_.Path(), L".log");
  ASSERT_TRUE(search.First());
  EXPECT_FALSE(search.Next());
  ASSERT_TRUE(search.First());
  EXPECT_EQ(search.Current().name, L"a.log");
}

TEST_F(FileSearchTest, EndsWhenClosed) {
  MakeFile(L"a.log");
  MakeFile(L"b.log");
  FileSearch search(folder_.Path(), L".log");
  EXPECT_FALSE(search.Next());
  ASSERT_TRUE(search.First());
  search.Close();
  EXPECT_FALSE(search.Next());
  search.Close();
}

TEST_F(FileSearchTest, ReturnsSizeAndTimeOfTheCurrentEntry) {
  kyd_test::WriteFileBytes(folder_ / L"a.log", "12345");
  const std::filesystem::path file = platform::ToNativePath(folder_ / L"a.log");
  const auto now = std::filesystem::file_time_type::clock::now();
  std::filesystem::last_write_time(file, now - std::chrono::hours(2));
  FileSearch search(folder_.Path(), L".log");
  EXPECT_FALSE(search.Details());
  ASSERT_TRUE(search.First());
  const std::optional<platform::EntryDetails> details = search.Details();
  ASSERT_TRUE(details);
  EXPECT_EQ(details->size, 5U);
  const std::int64_t age = platform::SystemClock().Seconds() - details->modified;
  EXPECT_NEAR(static_cast<double>(age), 7200, 60);
  search.Close();
  EXPECT_FALSE(search.Details());
}

#ifndef _WIN32
// On Windows the search itself returns the details.
TEST_F(FileSearchTest, HasNoDetailsOfAnEntryThatHasVanished) {
  MakeFile(L"a.log");
  FileSearch search(folder_.Path(), L".log");
  ASSERT_TRUE(search.First());
  ASSERT_TRUE(platform::RemoveFile(folder_ / L"a.log"));
  EXPECT_FALSE(search.Details());
  EXPECT_EQ(platform::LastError(), platform::kErrorFileNotFound);
}
#endif

}  // namespace
