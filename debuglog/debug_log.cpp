// Formats, writes and keeps the lines of one diagnostic logger.
#include "debuglog/debug_log.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <string_view>
#include <utility>

#include "platform/file.h"
#include "platform/folders.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/text.h"

namespace corvid {

namespace {

constexpr wchar_t kDefaultFileName[] = L"kyd.log";
constexpr std::size_t kPrefixCapacity = 256;  // characters; more than ten numbers can need
constexpr std::size_t kNumberCapacity = 11;   // characters of the longest number of 32 bits
constexpr std::size_t kLineReserve = 1024;

std::uint32_t SystemRegistryAccess() {
  // Determined once per process.
  static const std::uint32_t access =
      platform::IsWow64Process() ? platform::kRegistryRead64 : platform::kRegistryRead;
  return access;
}

// Converts like %d.
std::int32_t Number(std::uint32_t id) {
  return static_cast<std::int32_t>(id);
}

// Writes a zero-padded number like %0*d and the character after it; returns the end. Not formatted
// with printf, which took a quarter of a line's instructions even with a compiled format.
wchar_t* PutNumber(wchar_t* to, std::int32_t value, std::ptrdiff_t width, wchar_t after) {
  std::array<char, kNumberCapacity> digits;
  const char* first = digits.data();
  const char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  const std::ptrdiff_t fill = std::max<std::ptrdiff_t>(width - (end - first), 0);
  if (value < 0) {
    *to++ = static_cast<wchar_t>(*first++);
  }
  to = std::copy(first, end, std::fill_n(to, fill, L'0'));
  *to++ = after;
  return to;
}

wchar_t* PutText(wchar_t* to, std::wstring_view text) {
  return std::copy(text.begin(), text.end(), to);
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
  std::array<wchar_t, kPrefixCapacity> prefix;
  wchar_t* end = prefix.data();
  end = PutNumber(end, time.year, 4, L'/');
  end = PutNumber(end, time.month, 2, L'/');
  end = PutNumber(end, time.day, 2, L'T');
  end = PutNumber(end, time.hour, 2, L':');
  end = PutNumber(end, time.minute, 2, L':');
  end = PutNumber(end, time.second, 2, L'.');
  end = PutNumber(end, time.millisecond, 3, L',');
  end = PutNumber(PutText(end, L" SID:"), Number(platform::SessionId()), 6, L',');
  end = PutNumber(PutText(end, L" PID:"), Number(platform::ProcessId()), 6, L',');
  end = PutNumber(PutText(end, L" TID:"), Number(platform::ThreadId()), 6, L',');
  *end++ = L' ';
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
  const auto make = [text] { return std::wstring(text == nullptr ? L"" : text); };
  WriteLine(std::cref(make));
}

void DebugLog::WriteLine(const LineMaker& make) noexcept {
  try {
    ReloadSettings();
    if (!IsEnabled()) {
      return;
    }
    const std::wstring text = make();
    WriteOrKeep(LogLine(surroundings_.clock->Local(), text.c_str()) + L'\n');
  } catch (...) {
    // The line is lost: logging never disturbs the code that logs.
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
  } catch (...) {
    // Lines that could not be written stay pending.
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
  } catch (...) {
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
  } catch (...) {
    // The settings keep what was read so far; the next due read starts over.
  }
}

bool DebugLog::IsEnabled() const noexcept {
  const std::lock_guard<std::recursive_mutex> guard(lock_);
  return settings_.enabled;
}

std::wstring DebugLog::Path() const {
  return platform::JoinPath(settings_.folder, file_name_);
}

}  // namespace corvid
