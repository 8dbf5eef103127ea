// Maps modules to their loggers.
#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "debuglog/debug_log.h"
#include "platform/module.h"

namespace corvid {

// The loggers of a process by module handle, and the default logger for modules without one. The
// lock of the registry is always taken before the lock of a logger. A null module handle is an
// ordinary key.
class ModuleLogs {
 public:
  explicit ModuleLogs(DebugLog& default_log) noexcept : default_log_(default_log) {}

  // Destroys the loggers in key order, which writes their pending lines.
  ~ModuleLogs();

  ModuleLogs(const ModuleLogs&) = delete;
  ModuleLogs& operator=(const ModuleLogs&) = delete;

  // Registers a logger for a module; a module that already has one keeps it.
  void Register(platform::ModuleHandle module, std::unique_ptr<DebugLog> log);

  // Writes a line through the module's logger.
  void WriteLine(platform::ModuleHandle module, const wchar_t* text);
  void WriteLine(platform::ModuleHandle module, const LineMaker& make);

  // Updates the settings of the module's logger and returns whether it is enabled.
  [[nodiscard]] bool IsEnabled(platform::ModuleHandle module);

  // Held while a module handle is looked up and used.
  [[nodiscard]] std::recursive_mutex& Lock() noexcept { return lock_; }

 private:
  [[nodiscard]] DebugLog& LogOf(platform::ModuleHandle module);

  std::recursive_mutex lock_;
  std::map<platform::ModuleHandle, std::unique_ptr<DebugLog>> logs_;
  DebugLog& default_log_;
};

// Creates this program's logger, "KydLogUploader.log" with mask 16, and registers it for this
// module's handle. Must be the first call of the program.
void RegisterModuleLog();

// Writes a line through the logger of the calling module. Never fails. This function and
// WriteModuleLogA belong to the module's published interface; CDebugLog uses WriteModuleLine.
void WriteModuleLog(const wchar_t* text) noexcept;

// The same for UTF-8 text, which is not converted if the logger is disabled. Null does nothing.
void WriteModuleLogA(const char* text) noexcept;

// The same for a text that is produced only if the logger is enabled, which is checked once.
void WriteModuleLine(const LineMaker& make) noexcept;

// Returns whether the logger of the calling module is enabled; false if unknown.
[[nodiscard]] bool IsModuleLogEnabled() noexcept;

}  // namespace corvid
