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

const Clock& SystemClock() noexcept {
  // Never destroyed: the last lines of the log are written while other objects go.
  alignas(RealClock) static unsigned char storage[sizeof(RealClock)];
  static const Clock& clock = *::new (static_cast<void*>(storage)) RealClock;
  return clock;
}

}  // namespace platform
