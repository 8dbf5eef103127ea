// The system's clock through GetLocalTime and _time64.
#include "platform/clock.h"

#include <windows.h>

#include <ctime>
#include <new>

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
  // Wine takes the 29th of February of any year for a date, and makes it the 1st of March.
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
  tm moment = {};
  moment.tm_year = utc.wYear - 1900;
  moment.tm_mon = utc.wMonth - 1;
  moment.tm_mday = utc.wDay;
  moment.tm_hour = utc.wHour;
  moment.tm_min = utc.wMinute;
  moment.tm_sec = utc.wSecond;
  const std::int64_t seconds = _mkgmtime64(&moment);
  return seconds < 0 ? std::nullopt : std::optional<std::int64_t>(seconds);
}

const Clock& SystemClock() noexcept {
  // Never destroyed: the last lines of the log are written while other objects go.
  alignas(RealClock) static unsigned char storage[sizeof(RealClock)];
  static const Clock& clock = *::new (static_cast<void*>(storage)) RealClock;
  return clock;
}

}  // namespace platform
