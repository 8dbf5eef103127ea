#include <aclapi.h>
#include <gtest/gtest.h>
#include <sddl.h>
#include <windows.h>

#include <string>

#include "platform/file.h"
#include "platform/file_security.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using platform::CFileAccessSecurity;

const struct {
  int mode;
  const wchar_t* sid;
} kModes[] = {
    {CFileAccessSecurity::kAdministrators, L"S-1-5-32-544"},
    {CFileAccessSecurity::kLocalSystem, L"S-1-5-18"},
    {CFileAccessSecurity::kUsers, L"S-1-5-32-545"},
    {CFileAccessSecurity::kEveryone, L"S-1-1-0"},
};

std::wstring TextOf(PSID sid) {
  wchar_t* text = nullptr;
  if (!ConvertSidToStringSidW(sid, &text)) {
    return L"?";
  }
  const std::wstring copy = text;
  LocalFree(text);
  return copy;
}

// Checks the attributes' ACL: one entry, with the expected SID.
void ExpectOneEntry(PACL acl, const std::wstring& sid) {
  ASSERT_NE(acl, nullptr);
  EXPECT_EQ(acl->AclRevision, 2);
  ASSERT_EQ(acl->AceCount, 1);
  void* entry = nullptr;
  ASSERT_TRUE(GetAce(acl, 0, &entry));
  const auto* ace = static_cast<ACCESS_ALLOWED_ACE*>(entry);
  EXPECT_EQ(ace->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
  EXPECT_EQ(ace->Header.AceFlags, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE);
  EXPECT_EQ(ace->Mask, GENERIC_ALL);
  EXPECT_EQ(TextOf(const_cast<DWORD*>(&ace->SidStart)), sid);
  const DWORD sid_size = GetLengthSid(const_cast<DWORD*>(&ace->SidStart));
  EXPECT_EQ(acl->AclSize, sid_size + 28);
}

TEST(FileSecurityDescriptor, HoldsOneInheritedEntryThatAllowsEverything) {
  for (const auto& one : kModes) {
    SCOPED_TRACE(one.mode);
    CFileAccessSecurity security(one.mode);
    EXPECT_TRUE(security.Build());
    const auto* attributes = static_cast<SECURITY_ATTRIBUTES*>(security.Attributes());
    ASSERT_NE(attributes, nullptr);
    EXPECT_EQ(attributes->nLength, sizeof(SECURITY_ATTRIBUTES));
    ASSERT_TRUE(IsValidSecurityDescriptor(attributes->lpSecurityDescriptor));
    BOOL present = FALSE;
    BOOL defaulted = TRUE;
    PACL acl = nullptr;
    ASSERT_TRUE(
        GetSecurityDescriptorDacl(attributes->lpSecurityDescriptor, &present, &acl, &defaulted));
    EXPECT_TRUE(present);
    EXPECT_FALSE(defaulted);
    ExpectOneEntry(acl, one.sid);
  }
}

TEST(FileSecurityDescriptor, CanBeBuiltAgain) {
  CFileAccessSecurity security(CFileAccessSecurity::kEveryone);
  EXPECT_TRUE(security.Build());
  EXPECT_TRUE(security.Build());
  EXPECT_NE(security.Attributes(), nullptr);
}

TEST(FileSecurityDescriptor, CreatesAFileThatNamesTheSid) {
  const kyd_test::TempFolder folder;
  CFileAccessSecurity security(CFileAccessSecurity::kEveryone);
  ASSERT_TRUE(security.Build());
  const std::wstring path = folder / L"file";
  ASSERT_TRUE(platform::File::OpenForWriting(path, security).IsOpen());

  PACL acl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ASSERT_EQ(GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                                  nullptr, &acl, nullptr, &descriptor),
            static_cast<DWORD>(ERROR_SUCCESS));
  bool found = false;
  for (DWORD i = 0; acl != nullptr && i < acl->AceCount; ++i) {
    void* entry = nullptr;
    ASSERT_TRUE(GetAce(acl, i, &entry));
    const auto* ace = static_cast<ACCESS_ALLOWED_ACE*>(entry);
    found = found || TextOf(const_cast<DWORD*>(&ace->SidStart)) == L"S-1-1-0";
  }
  EXPECT_TRUE(found);
  LocalFree(descriptor);
}

}  // namespace
