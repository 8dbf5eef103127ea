// The state of the uploads, by limits that the caller sets.
//
//   warning    a waiting file is older than the largest age, or more files failed than allowed
//   critical   the same with twice the limit
//   unknown    something could not be read, and nothing that could be read is critical
//
// With a limit of 0, any excess is critical. Without limits there is no warning and nothing is
// critical.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "status/survey.h"

namespace kyd {

struct Limits {
  std::optional<std::uint32_t> max_age_hours;  // of a waiting file
  std::optional<std::uint32_t> max_errors;     // failed files in the surveyed days
};

// The numbers are the exit codes that monitoring systems expect.
enum class State : int { kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };

// Returns the more severe of two states.
[[nodiscard]] State Worse(State left, State right) noexcept;

struct Verdict {
  State state = State::kOk;
  std::vector<std::wstring> reasons;  // sentences without a full stop; empty if everything is well
};

[[nodiscard]] Verdict Judge(const Survey& survey, const Limits& limits);

}  // namespace kyd
