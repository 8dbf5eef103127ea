// The machine-wide registry.
#include "platform/registry.h"

#include <windows.h>

#include "platform/unique_handle.h"

namespace platform {
namespace {

struct KeyCloser {
  using Value = HKEY;
  static constexpr Value kInvalid = nullptr;
  static void Close(Value key) noexcept { RegCloseKey(key); }
};

}  // namespace

struct RegistryKey::Handle {
  UniqueHandle<KeyCloser> key;
};

RegistryKey::RegistryKey(std::unique_ptr<Handle> handle) noexcept : handle_(std::move(handle)) {}
RegistryKey::RegistryKey(RegistryKey&&) noexcept = default;
RegistryKey& RegistryKey::operator=(RegistryKey&&) noexcept = default;
RegistryKey::~RegistryKey() = default;

std::optional<RegistryKey> RegistryKey::OpenLocalMachine(const std::wstring& path,
                                                         std::uint32_t access) {
  auto handle = std::make_unique<Handle>();
  HKEY key = nullptr;
  const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, access, &key);
  if (status != ERROR_SUCCESS) {
    ::SetLastError(static_cast<DWORD>(status));
    return std::nullopt;
  }
  handle->key.Reset(key);
  return RegistryKey(std::move(handle));
}

std::optional<RegistryValue> RegistryKey::Query(const std::wstring& name) const {
  if (handle_ == nullptr) {
    ::SetLastError(ERROR_FILE_NOT_FOUND);
    return std::nullopt;
  }
  const HKEY key = handle_->key.Get();
  RegistryValue value;
  // Most values fit. A longer one reports its size, and may have grown by the next call.
  value.data.resize(64);
  for (;;) {
    DWORD type = 0;
    auto size = static_cast<DWORD>(value.data.size());
    const LSTATUS status =
        RegQueryValueExW(key, name.c_str(), nullptr, &type, value.data.data(), &size);
    if (status != ERROR_SUCCESS && status != ERROR_MORE_DATA) {
      ::SetLastError(static_cast<DWORD>(status));
      return std::nullopt;
    }
    value.data.resize(size);
    if (status == ERROR_SUCCESS) {
      value.type = type;
      return value;
    }
  }
}

}  // namespace platform
