// The process's log object and its legacy settings.
#include "debuglog/cdebuglog.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "platform/folders.h"
#include "platform/registry.h"
#include "platform/text.h"

namespace kyd {

namespace {

constexpr wchar_t kDefaultName[] = L"LogServiceDebug";
constexpr wchar_t kLegacyKey[] = L"SOFTWARE\\Veltrane\\Veltrane Keyward";
constexpr wchar_t kLegacyFolderName[] = L"DebugKydLog";

template <std::size_t Capacity>
void CopyCut(std::wstring_view text, std::array<wchar_t, Capacity>& target) {
  const std::size_t size = std::min(text.size(), Capacity - 1);
  std::copy_n(text.begin(), size, target.begin());
  target[size] = L'\0';
}

// "OutputLogDebug" is read as 4 bytes of any type; a longer value does not fit.
bool ReadDebugFlag() {
  const std::optional<platform::RegistryKey> key =
      platform::RegistryKey::OpenLocalMachine(kLegacyKey, platform::kRegistryRead64);
  if (!key) {
    return false;
  }
  const std::optional<platform::RegistryValue> value = key->Query(L"OutputLogDebug");
  return value && platform::NumberOf(*value).value_or(0) != 0;
}

// NOLINTNEXTLINE(cert-err58-cpp): out of memory only
CDebugLog debug_log;

}  // namespace

CDebugLog::CDebugLog() : start_time_(platform::SystemClock().Local()) {
  SetName(kDefaultName);
  debug_ = ReadDebugFlag();
  CopyCut(platform::JoinPath(platform::CommonDocumentsFolder(), kLegacyFolderName), folder_);
}

CDebugLog::~CDebugLog() = default;

void CDebugLog::SetName(const wchar_t* name) noexcept {
  CopyCut(std::wstring_view(name), name_);
}

CDebugLog& Log() noexcept {
  return debug_log;
}

}  // namespace kyd
