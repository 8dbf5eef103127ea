#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "status/reports.h"

namespace {

using kyd::Survey;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

Survey Example() {
  Survey survey;
  survey.log_dir = L"C:\\Kyd\"Log\"";
  survey.now = 1'709'647'629;
  survey.accounts.resize(4);
  survey.accounts[0].name = L"alice";
  survey.accounts[0].waiting = {12, 3'000'000'000, survey.now - 3660};
  survey.accounts[0].archived = {true, 240, 2};
  survey.accounts[0].has_credentials = true;
  survey.accounts[1].name = L"b\\\"\n";
  survey.accounts[1].has_credentials = false;
  survey.accounts[2].name = L"unknown";
  survey.accounts[3].name = L"gone";
  survey.accounts[3].has_folder = false;
  survey.accounts[3].errors = 1;
  survey.days.resize(2);
  survey.days[0].day = {2024, 5, 1, 0, 0, 0, 0};
  survey.days[0].result.unfinished_blocks = 1;
  survey.days[1].day = {2024, 4, 30, 0, 0, 0, 0};
  survey.days[1].result.runs = 2;
  survey.days[1].result.sent = 40;
  survey.days[1].result.errors = 3;
  survey.days[1].result.last_run = L"23:00:01";
  survey.days[1].result.last_run_sent = 30;
  survey.days[1].result.last_run_errors = 1;
  survey.unreadable.push_back({L"C:\\x", 5});
  return survey;
}

// Returns the sample of a metric of the whole log directory.
std::string Total(const std::string& name, const std::string& value) {
  return "\nkydloguploader_" + name + R"({log_dir="C:\\Kyd\"Log\""} )" + value + "\n";
}

TEST(MetricsReport, ContainsTheTotals) {
  const std::string text = kyd::MetricsReport(Example(), false);
  const std::pair<const char*, const char*> totals[] = {
      {"survey_timestamp_seconds", "1709647629"},
      {"accounts", "3"},
      {"accounts_without_credentials", "1"},
      {"waiting_files", "12"},
      {"waiting_bytes", "3000000000"},
      {"waiting_oldest_age_seconds", "3660"},
      {"waiting_oldest_timestamp_seconds", "1709643969"},
      {"archived_files", "240"},
      {"not_sent_files", "2"},
      {"today_runs", "0"},
      {"today_sent_files", "0"},
      {"today_failed_files", "0"},
      {"today_unfinished_blocks", "1"},
      {"last_run_success", "0"},
      {"last_run_sent_files", "30"},
      {"last_run_failed_files", "1"},
      {"unreadable_paths", "1"},
  };
  for (const auto& [name, value] : totals) {
    EXPECT_THAT(text, HasSubstr(Total(name, value)));
  }
  EXPECT_THAT(text, Not(HasSubstr("account=")));
  EXPECT_THAT(text, EndsWith("\n# EOF\n"));
}

TEST(MetricsReport, ReportsTheLastRunInSecondsSince1970) {
  const std::int64_t seconds = platform::SecondsOf({2024, 4, 30, 23, 0, 1, 0}).value_or(0);
  EXPECT_GT(seconds, 1'714'400'000);
  EXPECT_THAT(kyd::MetricsReport(Example(), false),
              HasSubstr(Total("last_run_timestamp_seconds", std::to_string(seconds))));
}

TEST(MetricsReport, OmitsARunWithAnInvalidTime) {
  for (const wchar_t* const time : {L"", L"24:00:00", L"23:99:01", L"100000000000:00:00"}) {
    Survey survey = Example();
    survey.days[1].result.last_run = time;
    const std::string text = kyd::MetricsReport(survey, false);
    EXPECT_THAT(text, HasSubstr(Total("last_run_timestamp_seconds", "0")));
    EXPECT_THAT(text, Not(HasSubstr("\nkydloguploader_last_run_success{")));
  }
}

TEST(MetricsReport, OmitsTheTimeOfTheOldestFileIfNoneIsWaiting) {
  Survey survey = Example();
  survey.accounts[0].waiting = {};
  const std::string text = kyd::MetricsReport(survey, true);
  EXPECT_THAT(text, HasSubstr(Total("waiting_oldest_age_seconds", "0")));
  EXPECT_THAT(text, Not(HasSubstr("\nkydloguploader_waiting_oldest_timestamp_seconds{")));
  EXPECT_THAT(text, Not(HasSubstr("\nkydloguploader_account_waiting_oldest_timestamp_seconds{")));
}

TEST(MetricsReport, HasALabelForEachAccountWithAFolder) {
  Survey survey = Example();
  survey.days[0].result.errors_by_account = {{L"alice", 4}, {L"gone", 1}};
  const std::string text = kyd::MetricsReport(survey, true);
  const auto sample = [](const std::string& name, const std::string& account) {
    return "\nkydloguploader_account_" + name + R"({log_dir="C:\\Kyd\"Log\"",account=")" + account +
           "\"} ";
  };
  EXPECT_THAT(text, HasSubstr(sample("waiting_files", "alice") + "12\n"));
  EXPECT_THAT(text, HasSubstr(sample("waiting_bytes", "alice") + "3000000000\n"));
  EXPECT_THAT(text, HasSubstr(sample("waiting_oldest_age_seconds", "alice") + "3660\n"));
  EXPECT_THAT(text,
              HasSubstr(sample("waiting_oldest_timestamp_seconds", "alice") + "1709643969\n"));
  EXPECT_THAT(text, HasSubstr(sample("archived_files", "alice") + "240\n"));
  EXPECT_THAT(text, HasSubstr(sample("not_sent_files", "alice") + "2\n"));
  EXPECT_THAT(text, HasSubstr(sample("has_credentials", "alice") + "1\n"));
  EXPECT_THAT(text, HasSubstr(sample("today_failed_files", "alice") + "4\n"));
  EXPECT_THAT(text, HasSubstr(sample("has_credentials", "b\\\\\\\"\\n") + "0\n"));
  EXPECT_THAT(text, Not(HasSubstr(sample("has_credentials", "unknown"))));
  EXPECT_THAT(text, Not(HasSubstr("gone")));
}

TEST(MetricsReport, IsCompleteForAnEmptyTree) {
  const std::string text = kyd::MetricsReport({}, true);
  EXPECT_THAT(text, HasSubstr("\nkydloguploader_accounts{log_dir=\"\"} 0\n"));
  EXPECT_THAT(text, HasSubstr("\nkydloguploader_waiting_oldest_age_seconds{log_dir=\"\"} 0\n"));
  EXPECT_THAT(text, EndsWith("\n# EOF\n"));
}

}  // namespace
