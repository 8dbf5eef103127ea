// Reads the machine-wide registry; on Linux a registry export file, /etc/keyward/registry.reg.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace platform {

// Value types (winnt.h).
inline constexpr std::uint32_t kRegistryText = 1;          // REG_SZ
inline constexpr std::uint32_t kRegistryExpandedText = 2;  // REG_EXPAND_SZ
inline constexpr std::uint32_t kRegistryBinary = 3;        // REG_BINARY
inline constexpr std::uint32_t kRegistryDword = 4;         // REG_DWORD, little-endian

// Access rights for a key (winnt.h): reading, and the 64-bit view for a 32-bit process.
inline constexpr std::uint32_t kRegistryRead = 0x20019;    // KEY_READ
inline constexpr std::uint32_t kRegistryRead64 = 0x20119;  // KEY_READ | KEY_WOW64_64KEY

struct RegistryValue {
  std::uint32_t type = 0;
  std::vector<std::uint8_t> data;  // as stored: text is UTF-16LE, with or without a terminator
};

// Returns the data as a little-endian number, whatever the type, as if read into 4 zeroed bytes.
// std::nullopt for more than 4 bytes.
[[nodiscard]] std::optional<std::uint32_t> NumberOf(const RegistryValue& value) noexcept;

// An open key under HKEY_LOCAL_MACHINE (RegOpenKeyExW, RegCloseKey).
class RegistryKey {
 public:
  // std::nullopt if the key does not exist or cannot be read. `access` is one of the two above.
  [[nodiscard]] static std::optional<RegistryKey> OpenLocalMachine(const std::wstring& path,
                                                                   std::uint32_t access);
  RegistryKey(RegistryKey&&) noexcept;
  RegistryKey& operator=(RegistryKey&&) noexcept;
  RegistryKey(const RegistryKey&) = delete;
  RegistryKey& operator=(const RegistryKey&) = delete;
  ~RegistryKey();

  // Returns the value's type and complete data (RegQueryValueExW). std::nullopt if it is absent or
  // unreadable. Names are compared ignoring case.
  [[nodiscard]] std::optional<RegistryValue> Query(const std::wstring& name) const;

 private:
  struct Handle;
  explicit RegistryKey(std::unique_ptr<Handle> handle) noexcept;

  std::unique_ptr<Handle> handle_;
};

}  // namespace platform
