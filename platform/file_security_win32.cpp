// Security attributes with an access-control list of one entry.
#include "platform/file_security.h"

#include <windows.h>

#include <stdexcept>

#include "platform/unique_handle.h"

namespace platform {
namespace {

// Space for the list's header and one entry besides the SID.
constexpr DWORD kAclOverhead = 28;

struct SidCloser {
  using Value = PSID;
  static constexpr Value kInvalid = nullptr;
  static void Close(Value sid) noexcept { FreeSid(sid); }
};

struct HeapCloser {
  using Value = PACL;
  static constexpr Value kInvalid = nullptr;
  static void Close(Value acl) noexcept { HeapFree(GetProcessHeap(), 0, acl); }
};

using UniqueSid = UniqueHandle<SidCloser>;
using UniqueAcl = UniqueHandle<HeapCloser>;

UniqueSid AllocateSid(SID_IDENTIFIER_AUTHORITY authority, BYTE count, DWORD first,
                      DWORD second = 0) {
  PSID sid = nullptr;
  if (!AllocateAndInitializeSid(&authority, count, first, second, 0, 0, 0, 0, 0, 0, &sid)) {
    return UniqueSid();
  }
  return UniqueSid(sid);
}

UniqueSid SidOf(int mode) {
  switch (mode) {
    case CFileAccessSecurity::kAdministrators:
      return AllocateSid(SECURITY_NT_AUTHORITY, 2, SECURITY_BUILTIN_DOMAIN_RID,
                         DOMAIN_ALIAS_RID_ADMINS);
    case CFileAccessSecurity::kLocalSystem:
      return AllocateSid(SECURITY_NT_AUTHORITY, 1, SECURITY_LOCAL_SYSTEM_RID);
    case CFileAccessSecurity::kUsers:
      return AllocateSid(SECURITY_NT_AUTHORITY, 2, SECURITY_BUILTIN_DOMAIN_RID,
                         DOMAIN_ALIAS_RID_USERS);
    case CFileAccessSecurity::kEveryone:
      return AllocateSid(SECURITY_WORLD_SID_AUTHORITY, 1, SECURITY_WORLD_RID);
    default:
      return UniqueSid();
  }
}

// A list that grants the SID full access to the object and to everything created inside it.
UniqueAcl AllowEverything(PSID sid) {
  const DWORD size = GetLengthSid(sid) + kAclOverhead;
  UniqueAcl acl(static_cast<PACL>(HeapAlloc(GetProcessHeap(), 0, size)));
  void* entry = nullptr;
  if (!acl || !InitializeAcl(acl.Get(), size, ACL_REVISION) ||
      !AddAccessAllowedAce(acl.Get(), ACL_REVISION, GENERIC_ALL, sid) ||
      !GetAce(acl.Get(), 0, &entry)) {
    return UniqueAcl();
  }
  static_cast<ACE_HEADER*>(entry)->AceFlags = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
  return acl;
}

}  // namespace

// The attributes point to the descriptor, which points to the list, so none of them may move.
struct CFileAccessSecurity::Descriptor {
  UniqueSid sid;
  UniqueAcl acl;
  SECURITY_DESCRIPTOR descriptor = {};
  SECURITY_ATTRIBUTES attributes = {};
};

CFileAccessSecurity::CFileAccessSecurity(int mode) : mode_(mode) {}
CFileAccessSecurity::~CFileAccessSecurity() = default;

bool CFileAccessSecurity::Build() {
  if (mode_ == kDefault) {
    return true;
  }
  auto built = std::make_unique<Descriptor>();
  built->sid = SidOf(mode_);
  if (!built->sid) {
    throw std::runtime_error("no SID for the file's security");
  }
  built->acl = AllowEverything(built->sid.Get());
  if (!built->acl) {
    throw std::runtime_error("no access-control list for the file's security");
  }
  if (!InitializeSecurityDescriptor(&built->descriptor, SECURITY_DESCRIPTOR_REVISION) ||
      !SetSecurityDescriptorDacl(&built->descriptor, /*present=*/TRUE, built->acl.Get(),
                                 /*defaulted=*/FALSE)) {
    throw std::runtime_error("no security descriptor for the file");
  }
  built->attributes.nLength = sizeof built->attributes;
  built->attributes.lpSecurityDescriptor = &built->descriptor;
  built->attributes.bInheritHandle = FALSE;
  descriptor_ = std::move(built);
  return true;
}

void* CFileAccessSecurity::Attributes() const noexcept {
  return descriptor_ != nullptr ? &descriptor_->attributes : nullptr;
}

}  // namespace platform
