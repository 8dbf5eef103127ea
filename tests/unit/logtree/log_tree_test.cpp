#include "logtree/log_tree.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "platform/text.h"

namespace {

// A path as the platform writes it.
std::wstring Native(std::wstring path) {
  std::replace(path.begin(), path.end(), L'/', platform::kPathSeparator);
  return path;
}

TEST(LogTree, PutsEveryNameInItsPlace) {
  EXPECT_EQ(kyd::UploadPath(L"logs"), Native(L"logs/Upload"));
  EXPECT_EQ(kyd::UploadPath(L"logs", L"alice"), Native(L"logs/Upload/alice"));
  EXPECT_EQ(kyd::ArchivePath(L"logs", L"alice"), Native(L"logs/Archive/alice"));
  EXPECT_EQ(kyd::CredentialPath(L"logs", L"alice"), Native(L"logs/LogWork/alice/UserData.dat"));
}

TEST(LogTree, JoinsWithoutLookingAtTheParts) {
  EXPECT_EQ(kyd::PathBelow(Native(L"logs/"), L"a"), Native(L"logs//a"));
}

TEST(ResultPath, IsNamedAfterTheLocalDay) {
  EXPECT_EQ(kyd::ResultPath(L"logs", {2024, 3, 5, 14, 7, 9, 42}),
            Native(L"logs/UploadResult/UploadResult20240305.log"));
}

TEST(IsAccount, TakesFoldersButTheReservedOne) {
  EXPECT_TRUE(kyd::IsAccount({L"alice", true}));
  EXPECT_TRUE(kyd::IsAccount({L"nosent_logfiles", true}));
  EXPECT_FALSE(kyd::IsAccount({L"alice", false}));
  for (const wchar_t* const name : {L".", L"..", L"NoSent_LogFiles"}) {
    EXPECT_FALSE(kyd::IsAccount({name, true})) << name;
  }
}

}  // namespace
