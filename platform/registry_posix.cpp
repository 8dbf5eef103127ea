// The machine-wide registry as an export file.
#include "platform/registry.h"

#include "platform/error.h"
#include "platform/fd_posix.h"
#include "platform/registry_text_posix.h"
#include "platform/sysroot_posix.h"

namespace platform {
namespace {

// Far more than a few settings need; a longer file counts as unreadable.
constexpr std::size_t kMostBytes = std::size_t{16} << 20;

// Returns the whole text; std::nullopt, with LastError set, if it cannot be read.
std::optional<std::string> ReadFileText(const std::string& path) {
  const UniqueFd file = OpenRegularFile(path, O_RDONLY);
  if (!file) {
    return std::nullopt;
  }
  std::string text;
  char buffer[16384];
  for (;;) {
    const ssize_t count = ReadOnce(file.Get(), buffer, sizeof buffer);
    if (count < 0) {
      RecordErrno(errno, path);
      return std::nullopt;
    }
    if (count == 0) {
      return text;
    }
    if (text.size() + static_cast<std::size_t>(count) > kMostBytes) {
      SetLastError(kErrorGeneralFailure);
      return std::nullopt;
    }
    text.append(buffer, static_cast<std::size_t>(count));
  }
}

}  // namespace

struct RegistryKey::Handle {
  RegistryValues values;  // as of the time when the key was opened
};

RegistryKey::RegistryKey(std::unique_ptr<Handle> handle) noexcept : handle_(std::move(handle)) {}
RegistryKey::RegistryKey(RegistryKey&&) noexcept = default;
RegistryKey& RegistryKey::operator=(RegistryKey&&) noexcept = default;
RegistryKey::~RegistryKey() = default;

std::optional<RegistryKey> RegistryKey::OpenLocalMachine(const std::wstring& path,
                                                         std::uint32_t /*access*/) {
  const std::optional<std::string> text = ReadFileText(UnderSysroot("/etc/keyward/registry.reg"));
  if (!text) {
    return std::nullopt;
  }
  std::optional<RegistryValues> values = ReadRegistryText(*text, path);
  if (!values) {
    SetLastError(kErrorFileNotFound);
    return std::nullopt;
  }
  auto handle = std::make_unique<Handle>();
  handle->values = std::move(*values);
  return RegistryKey(std::move(handle));
}

std::optional<RegistryValue> RegistryKey::Query(const std::wstring& name) const {
  if (handle_ != nullptr) {
    const auto value = handle_->values.find(name);
    if (value != handle_->values.end()) {
      return value->second;
    }
  }
  SetLastError(kErrorFileNotFound);
  return std::nullopt;
}

}  // namespace platform
