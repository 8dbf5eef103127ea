// The report as a page: figures, a chart and two tables, one of which a script can sort and filter.
// All external text is escaped.
#include <string_view>

#include "platform/text.h"
#include "status/calendar.h"
#include "status/day_chart.h"
#include "status/page.h"
#include "status/reports.h"
#include "status/version.h"
#include "status/wording.h"

namespace kyd {

namespace {

constexpr wchar_t kStyle[] =
    LR"(
:root { color-scheme: light dark; --ground: #f6f7f9; --card: #ffffff; --text: #1c2128; --soft: #57606a;
  --line: #d5dae1; --sent: #1f6feb; --failed: #c2410c; --ok: #1a7f37; --warning: #8a5a00;
  --critical: #b91c1c; --unknown: #6b4fa3; --on-state: #ffffff; }
@media (prefers-color-scheme: dark) {
  :root { --ground: #0f1319; --card: #181d25; --text: #e6eaf0; --soft: #a3adba; --line: #333c48;
    --sent: #6cb0ff; --failed: #ff9a57; --ok: #4cc26a; --warning: #e3b341; --critical: #ff7b72;
    --unknown: #c0a8f0; --on-state: #0f1319; }
}
* { box-sizing: border-box; }
body { margin: 0; background: var(--ground); color: var(--text);
  font: 16px/1.5 system-ui, "Segoe UI", "Liberation Sans", sans-serif; }
main { max-width: 64rem; margin: 0 auto; padding: 2rem 1.25rem 3rem; }
header { display: flex; flex-wrap: wrap; align-items: center; gap: .5rem 1rem; }
h1 { font-size: 1.6rem; line-height: 1.2; margin: 0; }
h2 { font-size: 1.1rem; margin: 0 0 .75rem; }
.state { border-radius: 999px; padding: .15rem .8rem; font-weight: 600; color: var(--on-state);
  letter-spacing: .03em; }
.ok { background: var(--ok); } .warning { background: var(--warning); }
.critical { background: var(--critical); } .unknown { background: var(--unknown); }
.where { flex-basis: 100%; margin: 0; color: var(--soft); overflow-wrap: anywhere; }
.reasons { margin: 1rem 0 0; padding: .75rem 1rem .75rem 2rem; background: var(--card);
  border: 1px solid var(--line); border-radius: .6rem; overflow-wrap: anywhere; }
.figures { display: grid; grid-template-columns: repeat(auto-fit, minmax(9.5rem, 1fr)); gap: .75rem;
  margin: 1.5rem 0 0; }
.figures div, section { background: var(--card); border: 1px solid var(--line); border-radius: .6rem; }
.figures div { padding: .75rem 1rem; }
.figures dt { color: var(--soft); font-size: .875rem; }
.figures dd { margin: 0; font-size: 1.4rem; font-weight: 600; font-variant-numeric: tabular-nums; }
.figures dd small { display: block; font-size: .8125rem; font-weight: 400; color: var(--soft); }
section { margin-top: 1.25rem; padding: 1rem 1.25rem 1.25rem; }
.scroll { overflow-x: auto; }
.latest { direction: rtl; } .latest svg { direction: ltr; }
.scroll:focus-visible { outline: 3px solid var(--sent); outline-offset: 2px; }
table { width: 100%; border-collapse: collapse; font-variant-numeric: tabular-nums; }
th, td { padding: .4rem .6rem; text-align: right; white-space: nowrap;
  border-bottom: 1px solid var(--line); }
th:first-child, td:first-child { text-align: left; padding-left: 0; }
td:last-child, th:last-child { padding-right: 0; }
tbody tr:last-child > * { border-bottom: 0; }
caption { text-align: left; color: var(--soft); font-size: .875rem; padding-bottom: .5rem; }
thead th { color: var(--soft); font-size: .875rem; font-weight: 600; vertical-align: bottom; }
tbody th { font-weight: 600; white-space: normal; overflow-wrap: anywhere; min-width: 8rem; }
tbody th small { display: block; font-weight: 400; color: var(--soft); }
.bad { color: var(--failed); font-weight: 600; }
th button { font: inherit; color: inherit; background: none; border: 0; padding: .2rem 0; cursor: pointer;
  text-align: inherit; text-decoration: underline dotted; text-underline-offset: .25em; }
th button:hover, th[aria-sort] button { color: var(--text); }
th button:focus-visible, .controls :focus-visible { outline: 3px solid var(--sent); outline-offset: 2px; }
th[aria-sort] button::after { display: inline-block; width: 1.1em; content: "\25B2" / ""; }
th[aria-sort="descending"] button::after { content: "\25BC" / ""; }
.controls { display: flex; flex-wrap: wrap; align-items: center; gap: .5rem 1.25rem; margin-bottom: .75rem; }
.controls[hidden] { display: none; }
.controls label { display: flex; flex-wrap: wrap; align-items: center; gap: .25rem .5rem; }
.controls input, .controls select { font: inherit; color: var(--text); background: var(--ground);
  border: 1px solid var(--soft); border-radius: .4rem; padding: .25rem .5rem; max-width: 100%; }
.controls p { margin: 0; color: var(--soft); }
.legend { display: flex; gap: 1.25rem; margin: 0 0 .5rem; padding: 0; list-style: none;
  color: var(--soft); font-size: .875rem; }
.legend span { display: inline-block; width: .8rem; height: .8rem; margin-right: .4rem;
  border-radius: .15rem; }
.legend .sent { background: var(--sent); } .legend .failed { background: var(--failed); }
svg { display: block; width: 100%; min-width: 36rem; height: auto; }
svg text { fill: var(--soft); font-size: 12px; }
svg line { stroke: var(--line); }
svg .sent { fill: var(--sent); } svg .failed { fill: var(--failed); }
footer { margin-top: 1.5rem; color: var(--soft); font-size: .875rem; }
@media print { body { background: none; } .controls { display: none; } section, .figures div { break-inside: avoid; } }
)";

// Without the script the page only lacks the controls and the buttons in the column heads. The
// script reads names from the table as text and never turns them into markup. The page is XML as
// well, so the script has no character that XML would require to be escaped.
constexpr wchar_t kScript[] =
    LR"("use strict";
(() => {
  const table = document.getElementById("accounts-table");
  const body = table.tBodies[0];
  const rows = Array.from(body.rows).filter(row => row.cells.length > 1);
  if (rows.length === 0) {
    return;
  }
  const controls = document.getElementById("accounts-controls");
  const [name, show] = controls.querySelectorAll("input, select");
  const count = controls.querySelector("p");
  const headers = Array.from(table.tHead.rows[0].cells);
  const textOf = (row, column) => row.cells[column].firstChild.data;
  const numberOf = (row, column) => Number(row.cells[column].dataset.value ?? textOf(row, column));
  const collator = new Intl.Collator(undefined, { numeric: true });

  const sortBy = (header, column) => {
    const isText = header.dataset.kind === "text";
    const before = header.getAttribute("aria-sort");
    // The first click sorts text ascending and numbers descending; the next ones reverse the order.
    const ascending = before === null ? isText : before === "descending";
    for (const other of headers) {
      other.removeAttribute("aria-sort");
    }
    header.setAttribute("aria-sort", ascending ? "ascending" : "descending");
    const compare = isText
      ? (left, right) => collator.compare(textOf(left, column), textOf(right, column))
      : (left, right) => numberOf(left, column) - numberOf(right, column);
    rows.sort(ascending ? compare : (left, right) => compare(right, left));
    for (const row of rows) {
      body.append(row);
    }
  };

  const isChosen = row => {
    switch (show.value) {
      case "waiting": return numberOf(row, 1) > 0;
      case "not-sent": return numberOf(row, 5) > 0;
      case "credentials": return textOf(row, 6) === "no";
      case "failed": return numberOf(row, 7) > 0;
      default: return true;
    }
  };

  const filter = () => {
    const wanted = name.value.trim().toLowerCase();
    let shown = 0;
    for (const row of rows) {
      row.hidden = !(isChosen(row) ? textOf(row, 0).toLowerCase().includes(wanted) : false);
      shown += row.hidden ? 0 : 1;
    }
    count.textContent = `${shown} of ${rows.length} accounts`;
  };

  headers.forEach((header, column) => {
    const button = document.createElement("button");
    button.type = "button";
    button.append(...header.childNodes);
    button.addEventListener("click", () => sortBy(header, column));
    header.append(button);
  });
  name.addEventListener("input", filter);
  show.addEventListener("change", filter);
  controls.hidden = false;
  filter();
})();
)";

// SHA-256 of the script in Base64, for the content security policy. test_status_page.py computes
// it.
constexpr wchar_t kScriptHash[] = L"sha256-s+tBVY3WDvUehe4UfsJI3nf0nrQeW9TrMkmbtkFKDAs=";

std::wstring Number(std::uint64_t number) {
  return std::to_wstring(number);
}

std::wstring StateClass(State state) {
  switch (state) {
    case State::kOk:
      return L"ok";
    case State::kWarning:
      return L"warning";
    case State::kCritical:
      return L"critical";
    case State::kUnknown:
      break;
  }
  return L"unknown";
}

// Returns a number, highlighted unless it is zero.
std::wstring BadNumber(std::uint64_t number) {
  return number == 0 ? L"<td>0</td>" : L"<td class=\"bad\">" + Number(number) + L"</td>";
}

std::wstring Figure(std::wstring_view name, const std::wstring& value, const std::wstring& more) {
  std::wstring figure = L"<div><dt>";
  figure += name;
  return figure + L"</dt><dd>" + value + L"<small>" + more + L"</small></dd></div>\n";
}

std::wstring Figures(const Survey& survey) {
  const WaitingFiles waiting = AllWaiting(survey);
  const ArchivedFiles archived = AllArchived(survey);
  const AllDays days = SumOfDays(survey);
  const std::wstring span = L"in " + Counted(survey.days.size(), L"day", L"days");
  return L"<dl class=\"figures\">\n" +
         Figure(L"Waiting", Number(waiting.files), SizeText(waiting.bytes)) +
         Figure(L"Oldest", OldestText(waiting, survey.now), L"since its last write") +
         Figure(L"Sent", Number(days.sent), span + L", " + Counted(days.runs, L"run", L"runs")) +
         Figure(L"Failed", Number(days.errors), span) +
         Figure(L"Archived", Number(archived.files), Number(archived.not_sent) + L" not sent") +
         L"</dl>\n";
}

std::wstring Header(const Survey& survey, const Verdict& verdict) {
  std::wstring header = L"<header>\n<h1>Log upload status</h1>\n<span class=\"state " +
                        StateClass(verdict.state) + L"\">" + StateName(verdict.state) +
                        L"</span>\n<p class=\"where\">" + Escaped(survey.log_dir) + L" on <time>" +
                        DateText(survey.time) + L"</time> at " +
                        TimeText(survey.time).substr(11, 5) + L"</p>\n</header>\n";
  if (!verdict.reasons.empty()) {
    header += L"<ul class=\"reasons\">\n";
    for (const std::wstring& reason : verdict.reasons) {
      header += L"<li>" + Escaped(reason) + L"</li>\n";
    }
    header += L"</ul>\n";
  }
  return header;
}

// Returns a text with the number that it represents for sorting.
std::wstring SortableCell(std::uint64_t value, const std::wstring& text) {
  return L"<td data-value=\"" + Number(value) + L"\">" + text + L"</td>";
}

// 0 without waiting files, which sorts before a file of this second.
std::uint64_t AgeForOrder(const WaitingFiles& waiting, std::int64_t now) {
  return waiting.oldest ? static_cast<std::uint64_t>(AgeOf(*waiting.oldest, now)) + 1 : 0;
}

std::wstring AccountRow(const AccountStatus& account, std::int64_t now) {
  std::wstring note;
  if (!account.has_folder) {
    note = L"<small>in a result file only, no folder</small>";
  } else if (!account.archived.has_folder) {
    note = L"<small>no archive folder: sent files stay and are sent again</small>";
  }
  return L"<tr><th scope=\"row\">" + Escaped(account.name) + note + L"</th><td>" +
         Number(account.waiting.files) + L"</td>" +
         SortableCell(account.waiting.bytes, SizeText(account.waiting.bytes)) +
         SortableCell(AgeForOrder(account.waiting, now), OldestText(account.waiting, now)) +
         L"<td>" + Number(account.archived.files) + L"</td><td>" +
         Number(account.archived.not_sent) + L"</td><td>" + CredentialsText(account) + L"</td>" +
         BadNumber(account.errors) + L"</tr>\n";
}

struct Table {
  std::wstring id;
  std::wstring title;
  std::wstring controls;  // placed between title and table
  std::wstring caption;
  std::wstring columns;
  std::wstring rows;
};

// Wide tables scroll within a box that the keyboard can focus.
std::wstring Html(const Table& table) {
  return L"<section>\n<h2 id=\"" + table.id + L"\">" + table.title + L"</h2>\n" + table.controls +
         L"<div class=\"scroll\" role=\"region\" tabindex=\"0\" aria-labelledby=\"" + table.id +
         L"\">\n<table id=\"" + table.id + L"-table\">\n<caption>" + table.caption +
         L"</caption>\n<thead><tr>" + table.columns + L"</tr></thead>\n<tbody>\n" + table.rows +
         L"</tbody>\n</table>\n</div>\n</section>\n";
}

// Shown by the script.
constexpr wchar_t kControls[] =
    L"<div class=\"controls\" id=\"accounts-controls\" role=\"search\" "
    L"aria-labelledby=\"accounts\" "
    L"hidden=\"hidden\">\n"
    L"<label>Name contains <input type=\"search\" autocomplete=\"off\"/></label>\n"
    L"<label>Show <select>"
    L"<option value=\"\">all accounts</option>"
    L"<option value=\"waiting\">with waiting files</option>"
    L"<option value=\"failed\">with failed uploads</option>"
    L"<option value=\"credentials\">without credentials</option>"
    L"<option value=\"not-sent\">with files not sent</option>"
    L"</select></label>\n"
    L"<p role=\"status\"></p>\n</div>\n";

std::wstring Accounts(const Survey& survey) {
  std::wstring rows;
  for (const AccountStatus& account : survey.accounts) {
    rows += AccountRow(account, survey.now);
  }
  if (rows.empty()) {
    rows = L"<tr><td colspan=\"8\">There are no accounts.</td></tr>\n";
  }
  return Html(
      {L"accounts", L"Accounts", kControls,
       L"Waiting and archived files of each account, and its failed uploads in " +
           Counted(survey.days.size(), L"day", L"days"),
       L"<th scope=\"col\" data-kind=\"text\">Account</th><th scope=\"col\">Waiting</th>"
       L"<th scope=\"col\">Size</th><th scope=\"col\">Oldest</th>"
       L"<th scope=\"col\">Archived</th><th scope=\"col\">Not sent</th>"
       L"<th scope=\"col\" data-kind=\"text\">Credentials</th><th scope=\"col\">Failed</th>",
       rows});
}

std::wstring Days(const Survey& survey) {
  std::wstring rows;
  for (const DayStatus& day : survey.days) {
    const DayResult& result = day.result;
    std::wstring note;
    if (result.unfinished_blocks != 0) {
      note = L"<small>" +
             Counted(result.unfinished_blocks, L"unfinished block", L"unfinished blocks") +
             L"</small>";
    }
    rows += L"<tr><th scope=\"row\">" + DateText(day.day) + note + L"</th><td>" +
            Number(result.runs) + L"</td><td>" + Number(result.folders) + L"</td><td>" +
            Number(result.sent) + L"</td>" + BadNumber(result.errors) +
            BadNumber(result.errors_by_account.size()) + L"</tr>\n";
  }
  return Html({L"days", L"Days", L"", L"Numbers from each day's result file, the latest day first",
               L"<th scope=\"col\">Day</th><th scope=\"col\">Runs</th>"
               L"<th scope=\"col\">Folders</th><th scope=\"col\">Sent</th>"
               L"<th scope=\"col\">Failed</th><th scope=\"col\">Accounts with errors</th>",
               rows});
}

// On a narrow screen the chart is scrolled to its right end, so that the latest days are visible.
std::wstring Chart(const Survey& survey) {
  return L"<section>\n<h2 id=\"chart\">Sent and failed per day</h2>\n"
         L"<ul class=\"legend\"><li><span class=\"sent\"></span>sent</li>"
         L"<li><span class=\"failed\"></span>failed</li></ul>\n"
         L"<div class=\"scroll latest\" role=\"region\" tabindex=\"0\" "
         L"aria-labelledby=\"chart\">\n" +
         DayChart(survey.days) + L"</div>\n</section>\n";
}

std::wstring UnreadableList(const Survey& survey) {
  if (survey.unreadable.empty()) {
    return {};
  }
  std::wstring list =
      L"<section>\n"
      L"<h2 id=\"unreadable\">Could not be read</h2>\n<ul>\n";
  for (const Unreadable& unreadable : survey.unreadable) {
    list += L"<li>" + Escaped(unreadable.path) + L" (" + ErrorText(unreadable.error) + L")</li>\n";
  }
  return list + L"</ul>\n</section>\n";
}

}  // namespace

std::string HtmlReport(const Survey& survey, const Verdict& verdict) {
  std::wstring page =
      L"<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\"/>\n"
      L"<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
      L"style-src 'unsafe-inline'; script-src '";
  page += kScriptHash;
  page +=
      L"'; base-uri 'none'; form-action 'none'\"/>\n"
      L"<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n"
      L"<meta name=\"color-scheme\" content=\"light dark\"/>\n<title>";
  page += StateName(verdict.state);
  page += L": log upload status</title>\n<style>";
  page += kStyle;
  page += L"</style>\n</head>\n<body>\n<main>\n" + Header(survey, verdict) + Figures(survey) +
          Chart(survey) + Accounts(survey) + Days(survey) + UnreadableList(survey) + L"<footer>" +
          kStatusName + L" " + kStatusVersion + L"</footer>\n</main>\n<script>" + kScript +
          L"</script>\n</body>\n</html>\n";
  return platform::ToUtf8(page);
}

}  // namespace kyd
