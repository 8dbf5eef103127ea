// Builds, writes and keeps the lines of one diagnostic logger.
#include "debuglog/debug_log.h"

#include <fmt/compile.h>
#include <fmt/xchar.h>

#include <array>
#include <exception>
#include <utility>

#include "platform/file.h"
#include "platform/folders.h"
#include "platform/process.h"
#include "platform/text.h"

namespace corvid {

namespace {

constexpr wchar_t kDefaultFileName[] = L"kyd.log";
constexpr std::size_t kPrefixCapacity = 256;  // characters, more than ten numbers can need
constexpr std::size_t kLineReserve = 1024;

std::uint32_t SystemRegistryAccess() {
  static Wow64State state;  // one answer for the whole process
  return state.RegistryAccess(&platform::IsWow64Process);
}

// As %d prints it.
std::int32_t Number(std::uint32_t id) {
  return static_cast<std::int32_t>(id);
}

void WritePending(platform::Utf8AppendFile& file, std::list<std::wstring>& pending) {
  for (const std::wstring& line : pending) {
    file.Write(line);
  }
  pending.clear();
}

}  // namespace

LogSurroundings LogSurroundings::OfSystem() noexcept {
  return {&platform::SystemClock(), &platform::DefaultLogBase, &SystemRegistryAccess};
}

std::wstring LogLine(const platform::LocalTime& time, const wchar_t* text) {
  // Compiled: a third of what a line cost went into reading this format anew.
  std::array<wchar_t, kPrefixCapacity> prefix;
  wchar_t* const end = fmt::format_to(
      prefix.data(),
      FMT_COMPILE(L"{:04}/{:02}/{:02}T{:02}:{:02}:{:02}.{:03}, SID:{:06}, PID:{:06}, TID:{:06}, "),
      time.year, time.month, time.day, time.hour, time.minute, time.second, time.millisecond,
      Number(platform::SessionId()), Number(platform::ProcessId()), Number(platform::ThreadId()));
  std::wstring line;
  line.reserve(kLineReserve);
  line.append(prefix.data(), end);
  if (text != nullptr) {
    line += text;
  }
  line += L',';
  return line;
}

bool RotationCheckIsDue(std::int64_t now, std::int64_t last_check) noexcept {
  return now - last_check >= kRotationCheckSeconds;
}

DebugLog::DebugLog(std::wstring file_name, std::uint32_t mask, const LogSurroundings& surroundings)
    : surroundings_(surroundings),
      file_name_(file_name.empty() ? kDefaultFileName : std::move(file_name)),
      mask_(mask) {}

DebugLog::~DebugLog() {
  FlushPending();
}

void DebugLog::WriteLine(const wchar_t* text) noexcept {
  try {
    ReloadSettings();
    if (!IsEnabled()) {
      return;
    }
    WriteOrKeep(LogLine(surroundings_.clock->Local(), text) + L'\n');
  } catch (const std::exception&) {
    // The line is lost: logging never disturbs what it reports on.
  }
}

void DebugLog::WriteOrKeep(std::wstring line) {
  const std::lock_guard<std::recursive_mutex> guard(lock_);
  const std::wstring path = Path();
  {
    platform::Utf8AppendFile file(path);
    if (!file.IsOpen()) {
      pending_.push_back(std::move(line));
      if (pending_.size() > kMaxPendingLines) {
        pending_.pop_front();
      }
      return;
    }
    WritePending(file, pending_);
    file.Write(line);
  }
  RotateIfNeeded(path.c_str());
}

void DebugLog::FlushPending() noexcept {
  try {
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    if (pending_.empty()) {
      return;
    }
    const std::wstring path = Path();
    {
      platform::Utf8AppendFile file(path);
      if (!file.IsOpen()) {
        return;
      }
      WritePending(file, pending_);
    }
    RotateIfNeeded(path.c_str());
  } catch (const std::exception&) {
    // What could not be written stays pending.
  }
}

void DebugLog::RotateIfNeeded(const wchar_t* path) noexcept {
  if (path == nullptr) {
    return;
  }
  try {
    const std::int64_t now = surroundings_.clock->Seconds();
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    if (!RotationCheckIsDue(now, last_rotation_check_)) {
      return;
    }
    last_rotation_check_ = now;
    platform::File file = platform::File::OpenShared(path);
    if (!file.IsOpen()) {
      return;
    }
    const std::optional<std::uint64_t> size = file.Size();
    file.Close();
    if (size && *size >= settings_.size_limit) {
      // The move's result is ignored: the next check tries again.
      static_cast<void>(platform::MoveReplacing(path, std::wstring(path) + L".bak"));
    }
  } catch (const std::exception&) {
    // The file keeps growing until the next check.
  }
}

void DebugLog::ReloadSettings() noexcept {
  try {
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    const std::int64_t now = surroundings_.clock->Seconds();
    if (!SettingsAreDue(now, last_settings_read_, settings_.enabled)) {
      return;
    }
    last_settings_read_ = now;
    ReadLogSettings(mask_, surroundings_.registry_access(), surroundings_.default_base, settings_);
  } catch (const std::exception&) {
    // The settings stay as far as they were read; the next due read starts afresh.
  }
}

bool DebugLog::IsEnabled() const noexcept {
  const std::lock_guard<std::recursive_mutex> guard(lock_);
  return settings_.enabled;
}

std::wstring DebugLog::Path() const {
  return settings_.folder + platform::kPathSeparator + file_name_;
}

}  // namespace corvid
