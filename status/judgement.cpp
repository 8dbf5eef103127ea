// Compares the figures with the limits and explains the result.
#include "status/judgement.h"

#include <algorithm>

#include "status/wording.h"

namespace kyd {

namespace {

constexpr std::int64_t kSecondsPerHour = 3600;

State StateOf(std::uint64_t value, std::uint64_t limit) {
  if (value <= limit) {
    return State::kOk;
  }
  return value > 2 * limit ? State::kCritical : State::kWarning;
}

void JudgeAge(const Survey& survey, std::uint32_t max_age_hours, Verdict& verdict) {
  const auto limit = static_cast<std::int64_t>(max_age_hours) * kSecondsPerHour;
  std::uint64_t late = 0;
  const AccountStatus* worst = nullptr;
  for (const AccountStatus& account : survey.accounts) {
    if (account.waiting.oldest && AgeOf(*account.waiting.oldest, survey.now) > limit) {
      ++late;
      if (worst == nullptr || *account.waiting.oldest < *worst->waiting.oldest) {
        worst = &account;
      }
    }
  }
  if (worst == nullptr) {
    return;
  }
  const std::int64_t age = AgeOf(*worst->waiting.oldest, survey.now);
  verdict.state = Worse(
      verdict.state, StateOf(static_cast<std::uint64_t>(age), static_cast<std::uint64_t>(limit)));
  verdict.reasons.push_back(Counted(late, L"account has waited", L"accounts have waited") +
                            L" longer than " + DurationText(limit) + L", " +
                            Printable(worst->name) + L" the longest: " + DurationText(age));
}

void JudgeErrors(const Survey& survey, std::uint32_t max_errors, Verdict& verdict) {
  const std::uint64_t errors = SumOfDays(survey).errors;
  const State state = StateOf(errors, max_errors);
  if (state == State::kOk) {
    return;
  }
  verdict.state = Worse(verdict.state, state);
  verdict.reasons.push_back(Counted(errors, L"failed upload", L"failed uploads") + L" in " +
                            Counted(survey.days.size(), L"day", L"days") + L" (limit: " +
                            std::to_wstring(max_errors) + L")");
}

}  // namespace

State Worse(State left, State right) noexcept {
  const auto urgency = [](State state) {
    switch (state) {
      case State::kOk:
        return 0;
      case State::kWarning:
        return 1;
      case State::kUnknown:
        return 2;
      case State::kCritical:
        break;
    }
    return 3;
  };
  return urgency(left) < urgency(right) ? right : left;
}

Verdict Judge(const Survey& survey, const Limits& limits) {
  Verdict verdict;
  if (limits.max_age_hours) {
    JudgeAge(survey, *limits.max_age_hours, verdict);
  }
  if (limits.max_errors) {
    JudgeErrors(survey, *limits.max_errors, verdict);
  }
  if (!survey.unreadable.empty()) {
    verdict.state = Worse(verdict.state, State::kUnknown);
    verdict.reasons.push_back(
        Counted(survey.unreadable.size(), L"folder or file", L"folders or files") +
        L" could not be read");
  }
  return verdict;
}

}  // namespace kyd
