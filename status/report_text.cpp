// The report in columns. The last column holds text of any length.
#include <algorithm>
#include <cstddef>
#include <vector>

#include "status/calendar.h"
#include "status/reports.h"
#include "status/wording.h"

namespace kyd {

namespace {

using Row = std::vector<std::wstring>;

// Right-aligns all columns but the last, which is not padded.
std::wstring Columns(const std::vector<Row>& rows) {
  std::vector<std::size_t> widths(rows.front().size(), 0);
  for (const Row& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  std::wstring text;
  for (const Row& row : rows) {
    for (std::size_t i = 0; i + 1 < row.size(); ++i) {
      text += std::wstring(widths[i] - row[i].size(), L' ') + row[i] + L"  ";
    }
    text += row.back() + L"\n";
  }
  return text;
}

std::wstring NameOf(const AccountStatus& account) {
  std::wstring name = Printable(account.name);
  if (!account.has_folder) {
    name += L" (no folder)";
  } else if (!account.archived.has_folder) {
    name += L" (no archive folder)";
  }
  return name;
}

std::wstring Accounts(const Survey& survey) {
  std::vector<Row> rows = {{L"Waiting", L"Size", L"Oldest", L"Archived", L"Not sent",
                            L"Credentials", L"Failed", L"Account"}};
  for (const AccountStatus& account : survey.accounts) {
    rows.push_back({std::to_wstring(account.waiting.files), SizeText(account.waiting.bytes),
                    OldestText(account.waiting, survey.now),
                    std::to_wstring(account.archived.files),
                    std::to_wstring(account.archived.not_sent), CredentialsText(account),
                    std::to_wstring(account.errors), NameOf(account)});
  }
  return Columns(rows);
}

std::wstring Days(const Survey& survey) {
  std::vector<Row> rows = {
      {L"Day", L"Runs", L"Folders", L"Sent", L"Failed", L"Accounts with errors"}};
  for (const DayStatus& day : survey.days) {
    std::wstring last = std::to_wstring(day.result.errors_by_account.size());
    if (day.result.unfinished_blocks != 0) {
      last += L" (" +
              Counted(day.result.unfinished_blocks, L"unfinished block", L"unfinished blocks") +
              L")";
    }
    rows.push_back({DateText(day.day), std::to_wstring(day.result.runs),
                    std::to_wstring(day.result.folders), std::to_wstring(day.result.sent),
                    std::to_wstring(day.result.errors), std::move(last)});
  }
  return Columns(rows);
}

}  // namespace

const wchar_t* StateName(State state) noexcept {
  switch (state) {
    case State::kOk:
      return L"OK";
    case State::kWarning:
      return L"WARNING";
    case State::kCritical:
      return L"CRITICAL";
    case State::kUnknown:
      break;
  }
  return L"UNKNOWN";
}

std::wstring TextReport(const Survey& survey, const Verdict& verdict) {
  std::wstring text = StateName(verdict.state);
  text += L": ";
  for (const std::wstring& reason : verdict.reasons) {
    text += reason + L"; ";
  }
  text += SummaryText(survey) + L"\n\n" + Printable(survey.log_dir) + L" on " +
          DateText(survey.time) + L" at " + TimeText(survey.time).substr(11, 5) + L"\n\n";
  text += survey.accounts.empty() ? L"No accounts\n" : Accounts(survey);
  text += L"\n" + Days(survey);
  for (const Unreadable& unreadable : survey.unreadable) {
    text += L"\nCould not be read: " + Printable(unreadable.path) + L" (" +
            ErrorText(unreadable.error) + L")";
  }
  return text + (survey.unreadable.empty() ? L"" : L"\n");
}

}  // namespace kyd
