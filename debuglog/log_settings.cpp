// Reads the diagnostic log's settings from the registry and prepares its folder.
#include "debuglog/log_settings.h"

#include "platform/file.h"
#include "platform/registry.h"
#include "platform/text.h"

namespace corvid {

namespace {

constexpr wchar_t kLogFolderName[] = L"DebugSSO";

std::optional<std::uint32_t> QueryDword(const platform::RegistryKey& key, const wchar_t* name) {
  const std::optional<platform::RegistryValue> value = key.Query(name);
  if (!value || value->type != platform::kRegistryDword) {
    return std::nullopt;
  }
  return platform::NumberOf(*value);
}

// Returns text up to its first NUL; empty if the value is absent or of another type. REG_EXPAND_SZ
// is another type: nothing is expanded here.
std::wstring QueryText(const platform::RegistryKey& key, const wchar_t* name) {
  const std::optional<platform::RegistryValue> value = key.Query(name);
  if (!value || value->type != platform::kRegistryText) {
    return {};
  }
  const std::wstring text = platform::FromUtf16Le(value->data.data(), value->data.size());
  return text.substr(0, text.find(L'\0'));
}

// Returns the folder above "DebugSSO", ending in a separator.
std::optional<std::wstring> BaseFolder(const platform::RegistryKey& key, DefaultBase default_base) {
  std::wstring folder = QueryText(key, L"OutputLogDir");
  if (folder.empty()) {
    return default_base();
  }
  if (folder.back() != platform::kPathSeparator) {
    folder += platform::kPathSeparator;
  }
  return folder;
}

}  // namespace

bool SettingsAreDue(std::int64_t now, std::int64_t last_read, bool enabled) noexcept {
  return now - last_read >= (enabled ? kReloadSecondsEnabled : kReloadSecondsDisabled);
}

bool OutputLogEnables(std::uint32_t output_log, std::uint32_t mask) noexcept {
  return mask == 1 ? output_log != 0 : (output_log & mask) != 0;
}

void QueryLogSettings(std::uint32_t mask, std::uint32_t registry_access, DefaultBase default_base,
                      LogSettings& settings) {
  settings = LogSettings();
  const std::optional<platform::RegistryKey> key =
      platform::RegistryKey::OpenLocalMachine(kSettingsKey, registry_access);
  if (!key) {
    return;
  }
  const std::optional<std::uint32_t> output_log = QueryDword(*key, L"OutputLog");
  settings.enabled = output_log && OutputLogEnables(*output_log, mask);
  if (!settings.enabled) {
    return;
  }
  const std::optional<std::wstring> base = BaseFolder(*key, default_base);
  if (!base) {
    // Stays enabled with an empty folder: the log is then at the root of the current drive.
    return;
  }
  settings.folder = *base + kLogFolderName;
  const std::optional<std::uint32_t> size = QueryDword(*key, L"OutputLogSize");
  if (size && *size != 0) {
    settings.size_limit = *size;
  }
}

void ReadLogSettings(std::uint32_t mask, std::uint32_t registry_access, DefaultBase default_base,
                     LogSettings& settings) {
  QueryLogSettings(mask, registry_access, default_base, settings);
  const bool needs_folder = settings.enabled && !settings.folder.empty();
  if (needs_folder && !platform::IsFolder(settings.folder) &&
      !platform::CreateFolders(settings.folder)) {
    settings.enabled = false;
    settings.size_limit = kDefaultLogSizeLimit;
  }
}

}  // namespace corvid
