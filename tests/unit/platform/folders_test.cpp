#include "platform/folders.h"

#include <gtest/gtest.h>

#include "platform/file.h"
#include "platform/text.h"
#include "tests/unit/support/test_sysroot.h"

namespace {

TEST(Folders, DriveRootEndsAtTheFirstBackslash) {
  const struct {
    const wchar_t* directory;
    std::optional<std::wstring> expected;
  } cases[] = {
      {L"C:\\Windows\\system32", L"C:\\"},
      {L"D:\\", L"D:\\"},
      {L"\\\\server\\share\\system32", L"\\"},
      {L"windows\\system32", L"windows\\"},
      {L"C:", std::nullopt},
      {L"/usr/lib", std::nullopt},
      {L"\\", std::nullopt},
      {L"C", std::nullopt},
      {L"", std::nullopt},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(platform::DriveRootOf(one.directory), one.expected)
        << platform::ToUtf8(one.directory);
  }
}

TEST(Folders, DefaultLogBaseIsAFolderWithASeparator) {
  const kyd_test::TestSysroot sysroot;
  const std::optional<std::wstring> base = platform::DefaultLogBase();
  ASSERT_TRUE(base);
  EXPECT_TRUE(platform::IsFolder(*base));
#ifdef _WIN32
  EXPECT_EQ(base->substr(1), L":\\");
#else
  EXPECT_EQ(*base, sysroot.Folder().Path() + L"/var/log/");
#endif
}

TEST(Folders, CommonDocumentsHasNoSeparatorAtItsEnd) {
  const kyd_test::TestSysroot sysroot;
  const std::wstring folder = platform::CommonDocumentsFolder();
  ASSERT_FALSE(folder.empty());
  EXPECT_NE(folder.back(), platform::kPathSeparator);
#ifndef _WIN32
  EXPECT_EQ(folder, sysroot.Folder().Path() + L"/var/lib/keyward");
#endif
}

TEST(Folders, CreateFoldersMakesMissingParents) {
  const kyd_test::TempFolder folder;
  const std::wstring parent = folder / L"a";
  const std::wstring path =
      parent + platform::kPathSeparator + L"\x00E4 b" + platform::kPathSeparator + L"c";
  EXPECT_TRUE(platform::CreateFolders(path));
  EXPECT_TRUE(platform::IsFolder(path));
}

TEST(Folders, CreateFoldersAcceptsATrailingSeparator) {
  const kyd_test::TempFolder folder;
  EXPECT_TRUE(platform::CreateFolders((folder / L"a") + platform::kPathSeparator));
  EXPECT_TRUE(platform::IsFolder(folder / L"a"));
}

TEST(Folders, CreateFoldersFailsIfTheFolderExists) {
  const kyd_test::TempFolder folder;
  EXPECT_FALSE(platform::CreateFolders(folder.Path()));
}

TEST(Folders, CreateFoldersFailsBelowAFile) {
  const kyd_test::TempFolder folder;
  kyd_test::WriteFileBytes(folder / L"file", "content");
  EXPECT_FALSE(platform::CreateFolders(folder / L"file"));
  EXPECT_FALSE(platform::CreateFolders((folder / L"file") + platform::kPathSeparator + L"below"));
  EXPECT_EQ(kyd_test::ReadFileBytes(folder / L"file"), "content");
}

TEST(Folders, CreateFoldersRefusesRelativePaths) {
  EXPECT_FALSE(platform::CreateFolders(L"kyd-test-relative"));
  EXPECT_FALSE(platform::IsFolder(L"kyd-test-relative"));
  EXPECT_FALSE(platform::CreateFolders(L""));
}

TEST(Folders, IsFolderIsTrueForFoldersOnly) {
  const kyd_test::TempFolder folder;
  kyd_test::WriteFileBytes(folder / L"file", "");
  EXPECT_TRUE(platform::IsFolder(folder.Path()));
  EXPECT_TRUE(platform::IsFolder(folder.Path() + platform::kPathSeparator));
  EXPECT_FALSE(platform::IsFolder(folder / L"file"));
  EXPECT_FALSE(platform::IsFolder(folder / L"missing"));
  EXPECT_FALSE(platform::IsFolder(L""));
}

}  // namespace
