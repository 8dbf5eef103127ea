// The loggers of the process and the lookup of a module's logger.
#include "debuglog/module_logs.h"

#include <utility>

#include "debuglog/log_settings.h"
#include "platform/text.h"

namespace corvid {

namespace {

constexpr std::uint32_t kDefaultLogMask = 1;

// Created in this order at static initialisation and destroyed in reverse order at process exit:
// the program's logger together with the registry, the default logger last.
// NOLINTNEXTLINE(cert-err58-cpp): out of memory only
DebugLog default_log{std::wstring(), kDefaultLogMask};
ModuleLogs module_logs{default_log};

// An address inside this module.
void AnchorInThisModule() {}

// Calls `use` with this module's handle, under the registry lock. The reference taken by the lookup
// is released before the lock.
template <class Use>
auto WithThisModule(const Use& use) {
  const std::lock_guard<std::recursive_mutex> guard(module_logs.Lock());
  const platform::Library module =
      platform::ModuleOfAddress(reinterpret_cast<const void*>(&AnchorInThisModule));
  return use(module.Get());
}

}  // namespace

ModuleLogs::~ModuleLogs() {
  while (!logs_.empty()) {
    logs_.erase(logs_.begin());
  }
}

void ModuleLogs::Register(platform::ModuleHandle module, std::unique_ptr<DebugLog> log) {
  const std::lock_guard<std::recursive_mutex> guard(lock_);
  logs_.try_emplace(module, std::move(log));
}

void ModuleLogs::WriteLine(platform::ModuleHandle module, const wchar_t* text) {
  const std::lock_guard<std::recursive_mutex> guard(lock_);
  LogOf(module).WriteLine(text);
}

void ModuleLogs::WriteLine(platform::ModuleHandle module, const LineMaker& make) {
  const std::lock_guard<std::recursive_mutex> guard(lock_);
  LogOf(module).WriteLine(make);
}

bool ModuleLogs::IsEnabled(platform::ModuleHandle module) {
  const std::lock_guard<std::recursive_mutex> guard(lock_);
  DebugLog& log = LogOf(module);
  log.ReloadSettings();
  return log.IsEnabled();
}

DebugLog& ModuleLogs::LogOf(platform::ModuleHandle module) {
  const auto found = logs_.find(module);
  return found == logs_.end() ? default_log_ : *found->second;
}

void RegisterModuleLog() {
  WithThisModule([](platform::ModuleHandle module) {
    module_logs.Register(module, std::make_unique<DebugLog>(kProgramLogName, kProgramLogMask));
  });
}

void WriteModuleLog(const wchar_t* text) noexcept {
  try {
    WithThisModule([text](platform::ModuleHandle module) { module_logs.WriteLine(module, text); });
  } catch (...) {
    // The line is lost.
  }
}

void WriteModuleLogA(const char* text) noexcept {
  if (text != nullptr) {
    const auto make = [text] { return platform::FromUtf8(text); };
    WriteModuleLine(std::cref(make));
  }
}

void WriteModuleLine(const LineMaker& make) noexcept {
  try {
    WithThisModule([&make](platform::ModuleHandle module) { module_logs.WriteLine(module, make); });
  } catch (...) {
    // The line is lost.
  }
}

bool IsModuleLogEnabled() noexcept {
  try {
    return WithThisModule(
        [](platform::ModuleHandle module) { return module_logs.IsEnabled(module); });
  } catch (...) {
    return false;
  }
}

}  // namespace corvid
