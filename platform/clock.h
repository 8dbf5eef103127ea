// The system time. Code that depends on it takes a Clock, so that tests can set the time.
#pragma once

#include <cstdint>
#include <optional>

namespace platform {

// A local time (GetLocalTime).
struct LocalTime {
  int year = 0;
  int month = 0;  // 1 to 12
  int day = 0;    // 1 to 31
  int hour = 0;
  int minute = 0;
  int second = 0;
  int millisecond = 0;
};

// Returns the seconds since 1970 of a local time in the machine's time zone
// (TzSpecificLocalTimeToSystemTime). For an hour that occurs twice, either result. std::nullopt for
// a time that does not exist.
[[nodiscard]] std::optional<std::int64_t> SecondsOf(const LocalTime& local);

class Clock {
 public:
  virtual ~Clock() = default;

  // Returns whole seconds since 1970 (_time64).
  [[nodiscard]] virtual std::int64_t Seconds() const = 0;

  [[nodiscard]] virtual LocalTime Local() const = 0;
};

// Returns the system's clock. Usable during static initialisation and destruction.
[[nodiscard]] const Clock& SystemClock() noexcept;

}  // namespace platform
