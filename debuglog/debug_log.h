// A diagnostic logger: time-stamped lines in a UTF-8 text file, which is rotated.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>

#include "debuglog/log_settings.h"
#include "platform/clock.h"

namespace corvid {

inline constexpr std::size_t kMaxPendingLines = 100;
inline constexpr std::int64_t kRotationCheckSeconds = 10;

// The environment of a logger; tests substitute their own.
struct LogSurroundings {
  const platform::Clock* clock;
  DefaultBase default_base;
  std::uint32_t (*registry_access)();

  // The system's clock, system drive and registry view.
  [[nodiscard]] static LogSurroundings OfSystem() noexcept;
};

// Produces the text of a message, which ends at its first NUL.
using LineMaker = std::function<std::wstring()>;

// Returns one line without its line feed: prefix with local time, session, process and thread, the
// message (may be null), and a comma. The trailing comma is intentional.
[[nodiscard]] std::wstring LogLine(const platform::LocalTime& time, const wchar_t* text);

// Returns whether the size of the file must be checked again; times in seconds since 1970.
[[nodiscard]] bool RotationCheckIsDue(std::int64_t now, std::int64_t last_check) noexcept;

// Thread-safe. No function reports a failure or throws.
class DebugLog {
 public:
  // An empty file name means "kyd.log". The mask selects the bits of "OutputLog" that enable this
  // logger. A new logger is disabled until its settings have been read.
  DebugLog(std::wstring file_name, std::uint32_t mask,
           const LogSurroundings& surroundings = LogSurroundings::OfSystem());

  // Writes the pending lines if the file can be opened.
  virtual ~DebugLog();

  DebugLog(const DebugLog&) = delete;
  DebugLog& operator=(const DebugLog&) = delete;

  // Writes the message as a line, or keeps it if the file cannot be opened: at most the 100 newest
  // lines. A disabled logger writes and keeps nothing.
  void WriteLine(const wchar_t* text) noexcept;

  // The same for a text that is produced only if the logger is enabled.
  void WriteLine(const LineMaker& make) noexcept;

  // Writes the pending lines; they stay pending if the file cannot be opened.
  void FlushPending() noexcept;

  // Renames the file to the same name plus ".bak" once it has reached the size limit. Checks at
  // most every 10 seconds. A null path is skipped.
  void RotateIfNeeded(const wchar_t* path) noexcept;

  // Updates the settings: every 10 seconds while enabled, every 2 while disabled.
  void ReloadSettings() noexcept;

  // Returns whether the settings enabled the logger when they were last read.
  [[nodiscard]] bool IsEnabled() const noexcept;

 private:
  [[nodiscard]] std::wstring Path() const;
  void WriteOrKeep(std::wstring line);

  const LogSurroundings surroundings_;
  mutable std::recursive_mutex lock_;  // guards every member below
  LogSettings settings_;
  const std::wstring file_name_;
  const std::uint32_t mask_;
  std::int64_t last_settings_read_ = 0;
  std::int64_t last_rotation_check_ = 0;
  std::list<std::wstring> pending_;  // finished lines, oldest first
};

}  // namespace corvid
