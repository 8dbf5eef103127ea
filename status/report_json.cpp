// The report as JSON.
#include "status/calendar.h"
#include "status/json_writer.h"
#include "status/reports.h"
#include "status/version.h"
#include "status/wording.h"

namespace kyd {

namespace {

void WriteWaiting(JsonWriter& json, const WaitingFiles& waiting, std::int64_t now) {
  json.ObjectIn("waiting", [&] {
    json.NumberIn("files", waiting.files);
    json.NumberIn("bytes", waiting.bytes);
    json.TextOrNullIn("oldest", waiting.oldest ? UtcText(*waiting.oldest) : std::wstring());
    if (waiting.oldest) {
      json.NumberIn("oldestAgeSeconds", static_cast<std::uint64_t>(AgeOf(*waiting.oldest, now)));
    } else {
      json.NullIn("oldestAgeSeconds");
    }
  });
}

void WriteAccount(JsonWriter& json, const AccountStatus& account, std::int64_t now) {
  json.Object([&] {
    json.TextIn("name", account.name);
    json.BoolIn("folder", account.has_folder);
    WriteWaiting(json, account.waiting, now);
    json.ObjectIn("archive", [&] {
      json.BoolIn("folder", account.archived.has_folder);
      json.NumberIn("files", account.archived.files);
      json.NumberIn("notSent", account.archived.not_sent);
    });
    json.BoolIn("credentials", account.has_credentials);
    json.NumberIn("errors", account.errors);
    json.TextOrNullIn("lastErrorDay",
                      account.last_error_day ? DateText(*account.last_error_day) : std::wstring());
  });
}

void WriteDay(JsonWriter& json, const DayStatus& day) {
  const DayResult& result = day.result;
  json.Object([&] {
    json.TextIn("date", DateText(day.day));
    json.NumberIn("runs", result.runs);
    json.TextOrNullIn("lastRun", result.last_run);
    json.NumberIn("folders", result.folders);
    json.NumberIn("sent", result.sent);
    json.NumberIn("errors", result.errors);
    json.ArrayIn("accountsWithErrors", result.errors_by_account, [&](const auto& account) {
      json.Object([&] {
        json.TextIn("name", account.first);
        json.NumberIn("errors", account.second);
      });
    });
    json.NumberIn("unfinishedBlocks", result.unfinished_blocks);
    json.NumberIn("strangeLines", result.strange_lines);
  });
}

void WriteTotals(JsonWriter& json, const Survey& survey) {
  const AllDays days = SumOfDays(survey);
  const ArchivedFiles archived = AllArchived(survey);
  json.ObjectIn("totals", [&] {
    WriteWaiting(json, AllWaiting(survey), survey.now);
    json.NumberIn("archived", archived.files);
    json.NumberIn("notSent", archived.not_sent);
    json.NumberIn("runs", days.runs);
    json.NumberIn("sent", days.sent);
    json.NumberIn("errors", days.errors);
  });
}

}  // namespace

std::wstring StateWord(State state) {
  std::wstring word = StateName(state);
  for (wchar_t& character : word) {
    character = static_cast<wchar_t>(character - L'A' + L'a');
  }
  return word;
}

std::string JsonReport(const Survey& survey, const Verdict& verdict) {
  return JsonText([&](JsonWriter& json) {
    json.TextIn("program", kStatusName);
    json.TextIn("version", kStatusVersion);
    json.TextIn("time", TimeText(survey.time));
    json.TextIn("logDir", survey.log_dir);
    json.TextIn("state", StateWord(verdict.state));
    json.ArrayIn("reasons", verdict.reasons,
                 [&](const std::wstring& reason) { json.Text(reason); });
    WriteTotals(json, survey);
    json.ArrayIn("accounts", survey.accounts,
                 [&](const AccountStatus& account) { WriteAccount(json, account, survey.now); });
    json.ArrayIn("days", survey.days, [&](const DayStatus& day) { WriteDay(json, day); });
    json.ArrayIn("unreadable", survey.unreadable, [&](const Unreadable& unreadable) {
      json.Object([&] {
        json.TextIn("path", unreadable.path);
        json.NumberIn("error", unreadable.error);
      });
    });
  });
}

}  // namespace kyd
