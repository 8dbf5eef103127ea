// A clock that the test sets.
#pragma once

#include <cstdint>

#include "platform/clock.h"

namespace kyd_test {

class FakeClock : public platform::Clock {
 public:
  [[nodiscard]] std::int64_t Seconds() const override { return seconds; }
  [[nodiscard]] platform::LocalTime Local() const override { return local; }

  std::int64_t seconds = 1'700'000'000;
  platform::LocalTime local{2024, 5, 1, 9, 3, 7, 42};
};

}  // namespace kyd_test
