// The report as metrics for the textfile collectors of the Prometheus exporters.
//
// Those read Prometheus' own text format; the file is valid OpenMetrics as well. The two disagree
// about counters (whether "_total" belongs to the name in the TYPE line), so everything is a gauge,
// which suits the figures: today's start over at midnight. UNIT and EOF are comments in the older
// format.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/clock.h"
#include "platform/text.h"
#include "status/format_match.h"
#include "status/reports.h"
#include "status/version.h"
#include "status/wording.h"

namespace kyd {

namespace {

constexpr std::string_view kPrefix = "kydloguploader_";

// The figures behind the metrics of the whole log directory.
struct Totals {
  const Survey& survey;
  WaitingFiles waiting;
  ArchivedFiles archived;
  DayResult today;
  std::uint64_t accounts = 0;
  std::uint64_t without_credentials = 0;
  DayResult last_run;  // of the latest day with a run; without runs if there was none
  std::int64_t last_run_time = 0;
};

// An account and its failed uploads of today.
struct AccountToday {
  const AccountStatus& account;
  std::int64_t now = 0;
  std::uint64_t failed = 0;
};

using Value = std::optional<std::uint64_t>;  // absent: no sample

template <class Subject>
struct Metric {
  std::string_view name;
  std::string_view unit;  // suffix of the name; empty: none
  std::string_view help;  // must not contain characters that need escaping
  Value (*value)(const Subject&);
};

// Names and help texts are part of the contract with dashboards and alerts.
constexpr Metric<Totals> kTotals[] = {
    {"survey_timestamp_seconds", "seconds", "When these metrics were determined.",
     [](const Totals& all) -> Value { return all.survey.now; }},
    {"accounts", "", "Accounts: folders below Upload.",
     [](const Totals& all) -> Value { return all.accounts; }},
    {"accounts_without_credentials", "",
     "Accounts without a credential file, whose files are not sent.",
     [](const Totals& all) -> Value { return all.without_credentials; }},
    {"waiting_files", "", "Log files that wait to be sent.",
     [](const Totals& all) -> Value { return all.waiting.files; }},
    {"waiting_bytes", "bytes", "Size of the log files that wait to be sent.",
     [](const Totals& all) -> Value { return all.waiting.bytes; }},
    {"waiting_oldest_age_seconds", "seconds",
     "Time since the last write of the oldest waiting file, at the time of the survey; 0 if no "
     "file waits.",
     [](const Totals& all) -> Value {
       return AgeOf(all.waiting.oldest.value_or(all.survey.now), all.survey.now);
     }},
    {"waiting_oldest_timestamp_seconds", "seconds",
     "Last write of the oldest waiting file; absent if no file waits.",
     [](const Totals& all) -> Value { return all.waiting.oldest; }},
    {"archived_files", "", "Files in the archive folders, sent or not.",
     [](const Totals& all) -> Value { return all.archived.files; }},
    {"not_sent_files", "", "Files in the archive folders that a force flush moved there unsent.",
     [](const Totals& all) -> Value { return all.archived.not_sent; }},
    {"today_runs", "", "Runs since midnight, local time, that had files to send.",
     [](const Totals& all) -> Value { return all.today.runs; }},
    {"today_sent_files", "", "Files sent since midnight, local time.",
     [](const Totals& all) -> Value { return all.today.sent; }},
    {"today_failed_files", "",
     "Failed uploads since midnight, local time; a file that is tried again counts again.",
     [](const Totals& all) -> Value { return all.today.errors; }},
    {"today_unfinished_blocks", "", "Unfinished blocks in today's result file.",
     [](const Totals& all) -> Value { return all.today.unfinished_blocks; }},
    {"last_run_timestamp_seconds", "seconds",
     "End of the last run that had files to send; 0 if none is known.",
     [](const Totals& all) -> Value { return all.last_run_time; }},
    {"last_run_success", "",
     "Whether all uploads of the last run succeeded (1) or some failed (0); absent without a run.",
     [](const Totals& all) -> Value {
       return all.last_run.runs == 0 ? Value() : all.last_run.last_run_errors == 0;
     }},
    {"last_run_sent_files", "", "Files sent by the last run; absent without a run.",
     [](const Totals& all) -> Value {
       return all.last_run.runs == 0 ? Value() : all.last_run.last_run_sent;
     }},
    {"last_run_failed_files", "", "Failed uploads of the last run; absent without a run.",
     [](const Totals& all) -> Value {
       return all.last_run.runs == 0 ? Value() : all.last_run.last_run_errors;
     }},
    {"unreadable_paths", "", "Folders and files that could not be read for these metrics.",
     [](const Totals& all) -> Value { return all.survey.unreadable.size(); }},
};

constexpr Metric<AccountToday> kOfAccount[] = {
    {"account_waiting_files", "", "Log files of the account that wait to be sent.",
     [](const AccountToday& one) -> Value { return one.account.waiting.files; }},
    {"account_waiting_bytes", "bytes", "Size of the account's log files that wait to be sent.",
     [](const AccountToday& one) -> Value { return one.account.waiting.bytes; }},
    {"account_waiting_oldest_age_seconds", "seconds",
     "Time since the last write of the account's oldest waiting file, at the time of the survey; 0 "
     "if no file waits.",
     [](const AccountToday& one) -> Value {
       return AgeOf(one.account.waiting.oldest.value_or(one.now), one.now);
     }},
    {"account_waiting_oldest_timestamp_seconds", "seconds",
     "Last write of the account's oldest waiting file; absent if no file waits.",
     [](const AccountToday& one) -> Value { return one.account.waiting.oldest; }},
    {"account_archived_files", "", "Files in the account's archive folder, sent or not.",
     [](const AccountToday& one) -> Value { return one.account.archived.files; }},
    {"account_not_sent_files", "",
     "Files in the account's archive folder that a force flush moved there unsent.",
     [](const AccountToday& one) -> Value { return one.account.archived.not_sent; }},
    {"account_has_credentials", "",
     "Whether the account's credential file is there (1) or not (0); absent if unknown.",
     [](const AccountToday& one) -> Value { return one.account.has_credentials; }},
    {"account_today_failed_files", "", "Failed uploads of the account since midnight, local time.",
     [](const AccountToday& one) -> Value { return one.failed; }},
};

// std::nullopt for an invalid time: a result file may contain anything.
std::optional<std::int64_t> TimeOfLastRun(const DayStatus& day) {
  const std::optional<FormatFields> fields = MatchFormat(L"%02d:%02d:%02d", day.result.last_run);
  if (!fields) {
    return std::nullopt;
  }
  platform::LocalTime time = day.day;
  const auto part = [&](std::size_t index) {
    const std::int64_t number = fields->numbers[index];
    return number > 60 ? -1 : static_cast<int>(number);
  };
  time.hour = part(0);
  time.minute = part(1);
  time.second = part(2);
  return platform::SecondsOf(time);
}

Totals TotalsOf(const Survey& survey) {
  Totals all{survey, AllWaiting(survey), AllArchived(survey), {}, 0, 0, {}, 0};
  if (!survey.days.empty()) {
    all.today = survey.days.front().result;
  }
  for (const AccountStatus& account : survey.accounts) {
    all.accounts += account.has_folder ? 1 : 0;
    all.without_credentials += account.has_credentials == false ? 1 : 0;
  }
  for (const DayStatus& day : survey.days) {
    const std::optional<std::int64_t> time = TimeOfLastRun(day);
    if (time) {
      all.last_run = day.result;
      all.last_run_time = *time;
      break;
    }
  }
  return all;
}

// `name="value"`. Both formats escape backslash, quotation mark and line feed.
std::string Label(std::string_view name, std::wstring_view value) {
  std::string label(name);
  label += "=\"";
  for (const char character : platform::ToUtf8(PrintableAndDistinct(value))) {
    if (character == '\n') {
      label += "\\n";
      continue;
    }
    if (character == '\\' || character == '"') {
      label += '\\';
    }
    label += character;
  }
  return label + '"';
}

class MetricsText {
 public:
  void Describe(std::string_view name, std::string_view unit, std::string_view help) {
    Line("TYPE", name, "gauge");
    if (!unit.empty()) {
      Line("UNIT", name, unit);
    }
    Line("HELP", name, help);
  }

  void Sample(std::string_view name, std::string_view labels, std::uint64_t value) {
    text_ += kPrefix;
    text_ += name;
    text_ += '{';
    text_ += labels;
    text_ += "} ";
    text_ += std::to_string(value);
    text_ += '\n';
  }

  [[nodiscard]] std::string Finish() { return std::move(text_) + "# EOF\n"; }

 private:
  void Line(std::string_view keyword, std::string_view name, std::string_view rest) {
    text_ += "# ";
    text_ += keyword;
    text_ += ' ';
    text_ += kPrefix;
    text_ += name;
    text_ += ' ';
    text_ += rest;
    text_ += '\n';
  }

  std::string text_;
};

void WriteAccounts(const Survey& survey, const Totals& all, const std::string& labels,
                   MetricsText& text) {
  const auto failed = [&](const std::wstring& account) {
    const auto found = all.today.errors_by_account.find(account);
    return found == all.today.errors_by_account.end() ? 0 : found->second;
  };
  for (const Metric<AccountToday>& metric : kOfAccount) {
    text.Describe(metric.name, metric.unit, metric.help);
    for (const AccountStatus& account : survey.accounts) {
      // Names in a result file are untrusted, and there may be any number of them.
      if (!account.has_folder) {
        continue;
      }
      const Value value = metric.value({account, survey.now, failed(account.name)});
      if (value) {
        text.Sample(metric.name, labels + "," + Label("account", account.name), *value);
      }
    }
  }
}

}  // namespace

std::string MetricsReport(const Survey& survey, bool per_account) {
  // One folder may hold files for several log directories.
  const std::string labels = Label("log_dir", survey.log_dir);
  const Totals all = TotalsOf(survey);
  MetricsText text;
  text.Describe("build_info", "", "Version of KydUploadStatus.");
  text.Sample("build_info", labels + "," + Label("version", kStatusVersion), 1);
  for (const Metric<Totals>& metric : kTotals) {
    text.Describe(metric.name, metric.unit, metric.help);
    if (const Value value = metric.value(all)) {
      text.Sample(metric.name, labels, *value);
    }
  }
  if (per_account) {
    WriteAccounts(survey, all, labels, text);
  }
  return text.Finish();
}

}  // namespace kyd
