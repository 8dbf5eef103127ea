// The system's clock through GetLocalTime and _time64.
#include "platform/clock.h"

#include <windows.h>

#include <ctime>
#include <new>

#include "platform/file_handle_win32.h"

namespace platform {
namespace {

class RealClock final : public Clock {
 public:
  std::int64_t Seconds() const override { return _time64(nullptr); }

  LocalTime Local() const override {
    SYSTEMTIME now = {};
    GetLocalTime(&now);
    LocalTime local;
    local.year = now.wYear;
    local.month = now.wMonth;
    local.day = now.wDay;
    local.hour = now.wHour;
    local.minute = now.wMinute;
    local.second = now.wSecond;
    local.millisecond = now.wMilliseconds;
    return local;
  }
};

}  // namespace

std::optional<std::int64_t> SecondsOf(const LocalTime& local) {
  SYSTEMTIME parts = {};
  parts.wYear = static_cast<WORD>(local.year);
  parts.wMonth = static_cast<WORD>(local.month);
  parts.wDay = static_cast<WORD>(local.day);
  parts.wHour = static_cast<WORD>(local.hour);
  parts.wMinute = static_cast<WORD>(local.minute);
  parts.wSecond = static_cast<WORD>(local.second);
  // Wine accepts February 29 of any year and turns it into March 1.
  FILETIME moved = {};
  SYSTEMTIME back = {};
  if (SystemTimeToFileTime(&parts, &moved) == FALSE ||
      FileTimeToSystemTime(&moved, &back) == FALSE || back.wDay != parts.wDay) {
    return std::nullopt;
  }
  SYSTEMTIME utc = {};
  if (TzSpecificLocalTimeToSystemTime(nullptr, &parts, &utc) == FALSE) {
    return std::nullopt;
  }
  FILETIME moment = {};
  if (SystemTimeToFileTime(&utc, &moment) == FALSE) {
    return std::nullopt;
  }
  const std::int64_t seconds = SecondsSince1970(moment);
  return seconds < 0 ? std::nullopt : std::optional<std::int64_t>(seconds);
}

const Clock& SystemClock() noexcept {
  // Never destroyed: the last lines of the log are written while other objects are destroyed.
  alignas(RealClock) static unsigned char storage[sizeof(RealClock)];
  static const Clock& clock = *::new (static_cast<void*>(storage)) RealClock;
  return clock;
}

}  // namespace platform
