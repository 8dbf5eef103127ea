#include "logtree/log_tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "platform/error.h"
#include "platform/text.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using kyd::LogTree;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

// Returns a path with the platform's separators.
std::wstring Native(std::wstring path) {
  std::replace(path.begin(), path.end(), L'/', platform::kPathSeparator);
  return path;
}

TEST(LogTree, BuildsEveryPath) {
  const LogTree tree(L"logs");
  EXPECT_EQ(tree.UploadPath(), Native(L"logs/Upload"));
  EXPECT_EQ(tree.UploadPath(L"alice"), Native(L"logs/Upload/alice"));
  EXPECT_EQ(tree.UploadPath(L"alice", L"a.log"), Native(L"logs/Upload/alice/a.log"));
  EXPECT_EQ(tree.WaitingPattern(L"alice"), Native(L"logs/Upload/alice/*.log"));
  EXPECT_EQ(tree.ArchivePath(L"alice"), Native(L"logs/Archive/alice"));
  EXPECT_EQ(tree.ArchivePath(L"alice", L"a.log"), Native(L"logs/Archive/alice/a.log"));
  EXPECT_EQ(tree.CredentialPath(L"alice"), Native(L"logs/LogWork/alice/UserData.dat"));
}

TEST(LogTree, JoinsWithoutNormalising) {
  EXPECT_EQ(LogTree(Native(L"logs/")).UploadPath(), Native(L"logs//Upload"));
}

TEST(LogTree, NamesTheResultFileAfterTheLocalDay) {
  EXPECT_EQ(LogTree(L"logs").ResultPath({2024, 3, 5, 14, 7, 9, 42}),
            Native(L"logs/UploadResult/UploadResult20240305.log"));
}

TEST(LogTree, DistinguishesSentFilesInTheArchive) {
  EXPECT_TRUE(LogTree::IsSent(L"a.LOG"));
  EXPECT_FALSE(LogTree::IsSent(L"a.log.bak"));
  EXPECT_TRUE(LogTree::IsUnsent(L"a.log.BAK"));
  for (const wchar_t* const name : {L"a.log", L"a.bak", L"log.bak"}) {
    EXPECT_FALSE(LogTree::IsUnsent(name)) << platform::ToUtf8(name);
  }
}

class LogTreeOnDisk : public testing::Test {
 protected:
  static void MakeFolder(const std::wstring& path) {
    std::filesystem::create_directories(platform::ToNativePath(path));
  }
  void MakeWaiting(const std::wstring& account, const std::wstring& file) const {
    MakeFolder(tree_.UploadPath(account));
    kyd_test::WriteFileBytes(tree_.UploadPath(account, file), "content");
  }
  static std::vector<std::wstring> NamesIn(platform::FileSearch search) {
    std::vector<std::wstring> names;
    for (bool found = search.First(); found; found = search.Next()) {
      names.push_back(search.Current().name);
    }
    return names;
  }

  kyd_test::TempFolder folder_;
  const LogTree tree_{folder_.Path()};
};

TEST_F(LogTreeOnDisk, EveryFolderButTheReservedOneIsAnAccount) {
  for (const wchar_t* const account : {L"alice", L"bob", L"nosent_log", L"NoSent_LogFiles"}) {
    MakeFolder(tree_.UploadPath(account));
  }
  kyd_test::WriteFileBytes(tree_.UploadPath(L"x.log"), "");
  std::vector<std::wstring> accounts;
  const platform::FileSearch search = tree_.ForEachAccount([&](const std::wstring& account) {
    accounts.push_back(account);
    return true;
  });
  EXPECT_EQ(search.Failure(), 0U);
  EXPECT_THAT(accounts, UnorderedElementsAre(L"alice", L"bob", L"nosent_log"));
}

TEST_F(LogTreeOnDisk, ComparesTheReservedNameCaseSensitively) {
  MakeFolder(tree_.UploadPath(L"nosent_logfiles"));
  int accounts = 0;
  static_cast<void>(
      tree_.ForEachAccount([&](const std::wstring& /*account*/) { return ++accounts > 0; }));
  EXPECT_EQ(accounts, 1);
}

TEST_F(LogTreeOnDisk, WalkStopsWhenTheVisitorReturnsFalse) {
  MakeFolder(tree_.UploadPath(L"alice"));
  MakeFolder(tree_.UploadPath(L"bob"));
  int accounts = 0;
  const platform::FileSearch search =
      tree_.ForEachAccount([&](const std::wstring& /*account*/) { return ++accounts == 0; });
  EXPECT_EQ(accounts, 1);
  EXPECT_NE(search.Current().name, L"");
}

TEST_F(LogTreeOnDisk, WalkReportsWhyThereAreNoAccounts) {
  EXPECT_EQ(tree_.ForEachAccount([](const std::wstring& /*account*/) { return true; }).Failure(),
            platform::kErrorPathNotFound);
}

TEST_F(LogTreeOnDisk, LogFilesWait) {
  for (const wchar_t* const file : {L"a.log", L"B.LOG", L"c.log.bak", L"d.txt"}) {
    MakeWaiting(L"alice", file);
  }
  EXPECT_THAT(NamesIn(tree_.WaitingFiles(L"alice")), UnorderedElementsAre(L"a.log", L"B.LOG"));
  EXPECT_THAT(NamesIn(tree_.WaitingFiles(L"bob")), ElementsAre());
}

TEST_F(LogTreeOnDisk, MovesToTheArchive) {
  MakeWaiting(L"alice", L"a.log");
  MakeWaiting(L"alice", L"b.log");
  MakeFolder(tree_.ArchivePath(L"alice"));
  EXPECT_TRUE(tree_.Archive(L"alice", L"a.log"));
  EXPECT_TRUE(tree_.ArchiveUnsent(L"alice", L"b.log"));
  EXPECT_THAT(NamesIn(tree_.ArchivedFiles(L"alice")),
              UnorderedElementsAre(L".", L"..", L"a.log", L"b.log.bak"));
  EXPECT_THAT(NamesIn(tree_.WaitingFiles(L"alice")), ElementsAre());
}

TEST_F(LogTreeOnDisk, ReplacesNothingInTheArchive) {
  MakeFolder(tree_.ArchivePath(L"alice"));
  for (const bool sent : {true, false}) {
    MakeWaiting(L"alice", L"a.log");
    kyd_test::WriteFileBytes(tree_.ArchivePath(L"alice", sent ? L"a.log" : L"a.log.bak"), "old");
    EXPECT_FALSE(sent ? tree_.Archive(L"alice", L"a.log")
                      : tree_.ArchiveUnsent(L"alice", L"a.log"));
    EXPECT_EQ(platform::LastError(), platform::kErrorAlreadyExists);
    EXPECT_TRUE(kyd_test::PathExists(tree_.UploadPath(L"alice", L"a.log")));
  }
}

TEST_F(LogTreeOnDisk, CreatesNoArchive) {
  MakeWaiting(L"alice", L"a.log");
  EXPECT_FALSE(tree_.Archive(L"alice", L"a.log"));
  EXPECT_EQ(platform::LastError(), platform::kErrorPathNotFound);
  EXPECT_TRUE(kyd_test::PathExists(tree_.UploadPath(L"alice", L"a.log")));
}

TEST_F(LogTreeOnDisk, LatestResultIsThatOfTheLatestDay) {
  EXPECT_EQ(tree_.LatestResult(), L"");
  const std::wstring results = platform::FolderOf(tree_.ResultPath({}));
  MakeFolder(results);
  for (const wchar_t* const name :
       {L"UploadResult20240305.log", L"UploadResult20231231.log", L"UploadResult20240306.log.bak",
        L"UploadResult202403061.log", L"Uploaderesult20240306.log"}) {
    kyd_test::WriteFileBytes(platform::JoinPath(results, name), "");
  }
  MakeFolder(tree_.ResultPath({2024, 3, 7, 0, 0, 0, 0}));
  EXPECT_EQ(tree_.LatestResult(), tree_.ResultPath({2024, 3, 5, 0, 0, 0, 0}));
}

}  // namespace
