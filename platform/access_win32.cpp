// Checks folders by opening them with the right in question, which conflicts with no other handle,
// and files by their security descriptors. A file must not be opened with any right to its content:
// the uploader opens it with share mode 0 and would fail.
#include "platform/access.h"

#include <windows.h>
// Requires windows.h.
#include <aclapi.h>

#include "platform/file_handle_win32.h"
#include "platform/text.h"
#include "platform/unique_handle.h"

namespace platform {
namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

struct TokenCloser {
  using Value = HANDLE;
  static constexpr Value kInvalid = nullptr;
  static void Close(Value token) noexcept { CloseHandle(token); }
};
using UniqueToken = UniqueHandle<TokenCloser>;

struct LocalCloser {
  using Value = PSECURITY_DESCRIPTOR;
  static constexpr Value kInvalid = nullptr;
  static void Close(Value memory) noexcept { LocalFree(memory); }
};
using UniqueDescriptor = UniqueHandle<LocalCloser>;

bool Failed(DWORD error) {
  ::SetLastError(error);
  return false;
}

bool IsAllowedInFolder(const std::wstring& path, DWORD right) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    return false;
  }
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    return Failed(ERROR_PATH_NOT_FOUND);
  }
  const UniqueFile folder(CreateFileW(path.c_str(), right, kShareAll, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  return folder.IsValid();
}

// Returns the process's own token as an impersonation token, which AccessCheck requires.
UniqueToken ClientToken() {
  HANDLE process = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE, &process)) {
    return UniqueToken();
  }
  const UniqueToken owner(process);
  HANDLE client = nullptr;
  if (!DuplicateToken(process, SecurityImpersonation, &client)) {
    return UniqueToken();
  }
  return UniqueToken(client);
}

bool IsAllowedForFile(const std::wstring& path, DWORD right) {
  const UniqueFile file(
      CreateFileW(path.c_str(), READ_CONTROL, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr));
  if (!file) {
    return false;
  }
  PSECURITY_DESCRIPTOR security = nullptr;
  const DWORD error = GetSecurityInfo(
      file.Get(), SE_FILE_OBJECT,
      OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, nullptr,
      nullptr, nullptr, nullptr, &security);
  if (error != ERROR_SUCCESS) {
    return Failed(error);
  }
  const UniqueDescriptor owner(security);
  const UniqueToken token = ClientToken();
  GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE,
                             FILE_ALL_ACCESS};
  PRIVILEGE_SET privileges = {};
  DWORD size = sizeof privileges;
  DWORD granted = 0;
  BOOL is_allowed = FALSE;
  if (!token || !AccessCheck(security, token.Get(), right, &mapping, &privileges, &size, &granted,
                             &is_allowed)) {
    return false;
  }
  return is_allowed || Failed(ERROR_ACCESS_DENIED);
}

bool IsReadOnly(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY) != 0;
}

}  // namespace

bool MayAccess(const std::wstring& path, Access access) {
  switch (access) {
    case Access::kListFolder:
      return IsAllowedInFolder(path, FILE_LIST_DIRECTORY);
    case Access::kAddFile:
      return IsAllowedInFolder(path, FILE_ADD_FILE);
    case Access::kReadFile:
      return IsAllowedForFile(path, FILE_READ_DATA);
    case Access::kAppendFile:
      break;
  }
  return IsReadOnly(path) ? Failed(ERROR_ACCESS_DENIED) : IsAllowedForFile(path, FILE_APPEND_DATA);
}

bool MayRemove(const std::wstring& path) {
  // Either right is enough.
  return IsAllowedForFile(path, DELETE) || IsAllowedInFolder(FolderOf(path), FILE_DELETE_CHILD);
}

std::optional<std::uint64_t> FreeBytes(const std::wstring& folder) {
  ULARGE_INTEGER bytes = {};
  if (!GetDiskFreeSpaceExW(folder.c_str(), &bytes, nullptr, nullptr)) {
    return std::nullopt;
  }
  return bytes.QuadPart;
}

}  // namespace platform
