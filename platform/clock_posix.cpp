// The system's clock through clock_gettime.
#include "platform/clock.h"

#include <ctime>
#include <new>

namespace platform {
namespace {

class RealClock final : public Clock {
 public:
  std::int64_t Seconds() const override { return Now().tv_sec; }

  LocalTime Local() const override {
    const timespec now = Now();
    tm parts = {};
    if (localtime_r(&now.tv_sec, &parts) == nullptr) {
      return {};
    }
    LocalTime local;
    local.year = parts.tm_year + 1900;
    local.month = parts.tm_mon + 1;
    local.day = parts.tm_mday;
    local.hour = parts.tm_hour;
    local.minute = parts.tm_min;
    local.second = parts.tm_sec;
    local.millisecond = static_cast<int>(now.tv_nsec / 1'000'000);
    return local;
  }

 private:
  static timespec Now() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
  }
};

}  // namespace

std::optional<std::int64_t> SecondsOf(const LocalTime& local) {
  tm parts = {};
  parts.tm_year = local.year - 1900;
  parts.tm_mon = local.month - 1;
  parts.tm_mday = local.day;
  parts.tm_hour = local.hour;
  parts.tm_min = local.minute;
  parts.tm_sec = local.second;
  parts.tm_isdst = -1;
  const tm wanted = parts;
  const std::int64_t seconds = mktime(&parts);
  // April 31 would become May 1; a skipped hour may move.
  const bool same_day = parts.tm_year == wanted.tm_year && parts.tm_mon == wanted.tm_mon &&
                        parts.tm_mday == wanted.tm_mday && parts.tm_min == wanted.tm_min &&
                        parts.tm_sec == wanted.tm_sec;
  if (!same_day || seconds < 0) {
    return std::nullopt;
  }
  return seconds;
}

const Clock& SystemClock() noexcept {
  // Never destroyed: the last lines of the log are written while other objects are destroyed.
  alignas(RealClock) static unsigned char storage[sizeof(RealClock)];
  static const Clock& clock = *::new (static_cast<void*>(storage)) RealClock;
  return clock;
}

}  // namespace platform
