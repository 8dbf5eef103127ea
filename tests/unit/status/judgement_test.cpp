#include "status/judgement.h"

#include <gtest/gtest.h>

namespace {

using kyd::Judge;
using kyd::Limits;
using kyd::State;
using kyd::Survey;
using kyd::Verdict;

constexpr std::int64_t kNow = 1'700'000'000;
constexpr std::int64_t kHour = 3600;

// An account whose oldest file has this age, and a day with this many errors.
Survey Surveyed(std::int64_t age, std::uint64_t errors) {
  Survey survey;
  survey.now = kNow;
  survey.accounts.resize(2);
  survey.accounts[0].name = L"alice";
  survey.accounts[0].waiting = {1, 1, kNow - age};
  survey.accounts[1].name = L"bob";
  survey.days.resize(2);
  survey.days[1].result.errors = errors;
  return survey;
}

State StateOf(const Survey& survey, const Limits& limits) {
  return Judge(survey, limits).state;
}

TEST(Judge, IsOkWithoutLimits) {
  const Verdict verdict = Judge(Surveyed(kNow, 1000), {});
  EXPECT_EQ(verdict.state, State::kOk);
  EXPECT_TRUE(verdict.reasons.empty());
}

TEST(Judge, WarnsAboveALimitAndIsCriticalAboveTwiceTheLimit) {
  const Limits age{24, {}};
  EXPECT_EQ(StateOf(Surveyed(24 * kHour, 0), age), State::kOk);
  EXPECT_EQ(StateOf(Surveyed(24 * kHour + 1, 0), age), State::kWarning);
  EXPECT_EQ(StateOf(Surveyed(48 * kHour, 0), age), State::kWarning);
  EXPECT_EQ(StateOf(Surveyed(48 * kHour + 1, 0), age), State::kCritical);
  const Limits errors{{}, 5};
  EXPECT_EQ(StateOf(Surveyed(0, 5), errors), State::kOk);
  EXPECT_EQ(StateOf(Surveyed(0, 6), errors), State::kWarning);
  EXPECT_EQ(StateOf(Surveyed(0, 10), errors), State::kWarning);
  EXPECT_EQ(StateOf(Surveyed(0, 11), errors), State::kCritical);
}

TEST(Judge, HasNoWarningWithALimitOfZero) {
  EXPECT_EQ(StateOf(Surveyed(0, 0), {0, 0}), State::kOk);
  EXPECT_EQ(StateOf(Surveyed(1, 0), {0, {}}), State::kCritical);
  EXPECT_EQ(StateOf(Surveyed(0, 1), {{}, 0}), State::kCritical);
}

TEST(Judge, TreatsAFileFromTheFutureAsNew) {
  EXPECT_EQ(StateOf(Surveyed(-kHour, 0), {0, {}}), State::kOk);
}

TEST(Judge, IsUnknownIfSomethingIsUnreadableUnlessCritical) {
  Survey survey = Surveyed(0, 6);
  survey.unreadable.push_back({L"path", 5});
  EXPECT_EQ(StateOf(survey, {}), State::kUnknown);
  EXPECT_EQ(StateOf(survey, {{}, 5}), State::kUnknown);
  EXPECT_EQ(StateOf(survey, {{}, 2}), State::kCritical);
}

TEST(Judge, GivesReasons) {
  Survey survey = Surveyed(30 * kHour, 7);
  survey.accounts[1].waiting = {1, 1, kNow - 25 * kHour};
  survey.unreadable.push_back({L"path", 5});
  const Verdict verdict = Judge(survey, {24, 5});
  const std::vector<std::wstring> expected = {
      L"2 accounts have waited longer than 1 d, alice the longest: 1 d 6 h",
      L"7 failed uploads in 2 days (limit: 5)",
      L"1 folder or file could not be read",
  };
  EXPECT_EQ(verdict.reasons, expected);
}

}  // namespace
