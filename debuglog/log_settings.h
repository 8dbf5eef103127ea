// The registry settings of a diagnostic logger.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace corvid {

inline constexpr wchar_t kSettingsKey[] = L"SOFTWARE\\Veltrane\\Veltrane Keyward\\Corvid";

// The program's own logger: its bit of "OutputLog", and its file in the log folder.
inline constexpr std::uint32_t kProgramLogMask = 16;
inline constexpr wchar_t kProgramLogName[] = L"KydLogUploader.log";

inline constexpr std::uint64_t kDefaultLogSizeLimit = 10485760;  // bytes, 10 MiB

// Minimum number of seconds between two reads of the settings.
inline constexpr std::int64_t kReloadSecondsEnabled = 10;
inline constexpr std::int64_t kReloadSecondsDisabled = 2;

struct LogSettings {
  bool enabled = false;
  std::wstring folder;  // ends in "DebugSSO" if set
  std::uint64_t size_limit = kDefaultLogSizeLimit;
};

// Returns the default base folder of the log, ending in a separator.
using DefaultBase = std::optional<std::wstring> (*)();

// Returns whether the settings must be read again; times in seconds since 1970.
[[nodiscard]] bool SettingsAreDue(std::int64_t now, std::int64_t last_read, bool enabled) noexcept;

// Returns whether the value of "OutputLog" enables a logger with this mask.
[[nodiscard]] bool OutputLogEnables(std::uint32_t output_log, std::uint32_t mask) noexcept;

// Reads the settings from kSettingsKey below HKEY_LOCAL_MACHINE into `settings`, which is reset
// first. Every failure leaves the logger disabled or at its defaults. Creates nothing.
void QueryLogSettings(std::uint32_t mask, std::uint32_t registry_access, DefaultBase default_base,
                      LogSettings& settings);

// The same, and creates the log folder; without it the logger is disabled.
void ReadLogSettings(std::uint32_t mask, std::uint32_t registry_access, DefaultBase default_base,
                     LogSettings& settings);

}  // namespace corvid
