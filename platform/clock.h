// The machine's time, as a parameter: code that waits for seconds to pass takes a Clock.
#pragma once

#include <cstdint>
#include <optional>

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

// Seconds since 1970 of a moment in local time, by the machine's time zone
// (TzSpecificLocalTimeToSystemTime). Of an hour that is there twice, either. Nothing when there is
// no such moment.
[[nodiscard]] std::optional<std::int64_t> SecondsOf(const LocalTime& local);

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
