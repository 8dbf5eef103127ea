// Whether all is well, by limits that the caller sets.
//
//   warning    a waiting file is older than the largest age, or more files failed than allowed
//   critical   the same with twice the limit
//   unknown    something could not be read, and nothing that could be read is critical
//
// A limit of 0 has no room between the two: what is over it is critical. Without limits there is no
// warning and nothing is critical.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "status/survey.h"

namespace kyd {

struct Limits {
  std::optional<std::uint32_t> max_age_hours;  // of a waiting file
  std::optional<std::uint32_t> max_errors;     // failed files in the days looked at
};

// The numbers are exit codes, those that monitoring systems know.
enum class State : int { kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };

// Of two findings, the one that has to be acted upon first.
[[nodiscard]] State Worse(State left, State right) noexcept;

struct Verdict {
  State state = State::kOk;
  std::vector<std::wstring> reasons;  // a sentence without a full stop each; empty when all is well
};

[[nodiscard]] Verdict Judge(const Survey& survey, const Limits& limits);

}  // namespace kyd
