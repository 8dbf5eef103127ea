#include "platform/access.h"

#include <gtest/gtest.h>

#include "platform/error.h"
#include "platform/text.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using platform::Access;
using platform::MayAccess;

TEST(MayAccess, AllowsWhatTheOwnerOfAFolderMayDo) {
  const kyd_test::TempFolder folder;
  kyd_test::WriteFileBytes(folder / L"a.log", "a");
  EXPECT_TRUE(MayAccess(folder.Path(), Access::kListFolder));
  EXPECT_TRUE(MayAccess(folder.Path(), Access::kAddFile));
  EXPECT_TRUE(MayAccess(folder / L"a.log", Access::kReadFile));
  EXPECT_TRUE(MayAccess(folder / L"a.log", Access::kAppendFile));
  EXPECT_TRUE(platform::MayRemove(folder / L"a.log"));
  EXPECT_EQ(kyd_test::ReadFileBytes(folder / L"a.log"), "a");
}

TEST(MayAccess, ReportsWhatIsMissing) {
  const kyd_test::TempFolder folder;
  for (const Access access :
       {Access::kListFolder, Access::kAddFile, Access::kReadFile, Access::kAppendFile}) {
    EXPECT_FALSE(MayAccess(folder / L"missing", access));
    EXPECT_EQ(platform::LastError(), platform::kErrorFileNotFound);
  }
  EXPECT_FALSE(MayAccess((folder / L"missing") + L"/missing", Access::kReadFile));
  EXPECT_EQ(platform::LastError(), platform::kErrorPathNotFound);
  EXPECT_FALSE(platform::MayRemove(platform::JoinPath(folder / L"missing", L"a")));
}

TEST(MayAccess, DistinguishesFoldersFromFiles) {
  const kyd_test::TempFolder folder;
  kyd_test::WriteFileBytes(folder / L"a.log", "a");
  EXPECT_FALSE(MayAccess(folder / L"a.log", Access::kListFolder));
  EXPECT_FALSE(MayAccess(folder / L"a.log", Access::kAddFile));
  EXPECT_FALSE(MayAccess(folder.Path(), Access::kReadFile));
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
}

TEST(FreeBytes, IsPositiveWhereThereIsSpace) {
  const kyd_test::TempFolder folder;
  const std::optional<std::uint64_t> bytes = platform::FreeBytes(folder.Path());
  ASSERT_TRUE(bytes);
  EXPECT_GT(*bytes, 0U);
  EXPECT_FALSE(platform::FreeBytes(folder / L"missing"));
}

}  // namespace
