// The machine's time, as a parameter: whoever waits for seconds to pass takes a Clock.
#pragma once

#include <cstdint>

namespace platform {

// A moment in local time (GetLocalTime).
struct LocalTime {
  int year = 0;
  int month = 0;  // 1 to 12
  int day = 0;    // 1 to 31
  int hour = 0;
  int minute = 0;
  int second = 0;
  int millisecond = 0;
};

class Clock {
 public:
  virtual ~Clock() = default;

  // Whole seconds since 1970 (_time64).
  [[nodiscard]] virtual std::int64_t Seconds() const = 0;

  [[nodiscard]] virtual LocalTime Local() const = 0;
};

// The system's clock. Usable during static initialisation and destruction.
[[nodiscard]] const Clock& SystemClock() noexcept;

}  // namespace platform
