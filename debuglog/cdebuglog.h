// The log object that every part of the program uses.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>

#include "debuglog/format.h"
#include "debuglog/module_logs.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/text.h"

namespace kyd {

// The two entry points take printf-style formats, in which %s is text of the format's own kind;
// longer messages are truncated to the buffer. Nothing is formatted while the log is disabled. They
// are thread-safe, always return 1, never fail and never throw. They do not read the object's
// fields, which are legacy settings: read once at program start and used by no writer.
class CDebugLog {
 public:
  static constexpr std::size_t kNameCapacity = 64;     // characters, including the terminator
  static constexpr std::size_t kFolderCapacity = 260;  // characters, including the terminator

  CDebugLog();
  virtual ~CDebugLog();
  CDebugLog(const CDebugLog&) = delete;
  CDebugLog& operator=(const CDebugLog&) = delete;

  // Narrow: the formatted text is UTF-8 of at most 259 bytes.
  template <class... Arguments>
  int WriteLogA(const char* format, const Arguments&... arguments) noexcept {
    const auto expand = [&] {
      return platform::FromUtf8(
          FormatBounded(kNarrowMessageCapacity, format, arguments...).c_str());
    };
    try {
      corvid::WriteModuleLine(std::cref(expand));
    } catch (...) {
      // The message is lost.
    }
    return 1;
  }

  // Wide: the formatted text is at most 1023 characters.
  template <class... Arguments>
  int WriteLogW(const wchar_t* format, const Arguments&... arguments) noexcept {
    const auto expand = [&] { return FormatBounded(kWideMessageCapacity, format, arguments...); };
    try {
      corvid::WriteModuleLine(std::cref(expand));
    } catch (...) {
      // The message is lost.
    }
    return 1;
  }

  // Copies the name, truncated to 63 characters.
  void SetName(const wchar_t* name) noexcept;

  [[nodiscard]] const wchar_t* Name() const noexcept { return name_.data(); }
  [[nodiscard]] const wchar_t* Folder() const noexcept { return folder_.data(); }
  [[nodiscard]] bool IsDebug() const noexcept { return debug_; }
  [[nodiscard]] const platform::LocalTime& StartTime() const noexcept { return start_time_; }

 private:
  std::array<wchar_t, kFolderCapacity> folder_{};
  std::array<wchar_t, kNameCapacity> name_{};
  std::recursive_mutex lock_;
  bool debug_ = false;
  platform::File file_;  // never opened
  platform::LocalTime start_time_;
};

// The only object of the process.
[[nodiscard]] CDebugLog& Log() noexcept;

}  // namespace kyd
