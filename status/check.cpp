// Runs the parts of a check and reports their findings.
#include "status/check.h"

#include "status/calendar.h"
#include "status/check_parts.h"
#include "status/json_writer.h"
#include "status/reports.h"
#include "status/version.h"
#include "status/wording.h"

namespace kyd {

namespace {

std::wstring Summary(const Check& check) {
  const std::wstring rights = L"checked with the rights of this user";
  if (check.findings.empty()) {
    return L"nothing found that would prevent the next run from working; " + rights;
  }
  return Counted(check.findings.size(), L"finding", L"findings") + L" about the next run; " +
         rights;
}

}  // namespace

Check CheckNextRun(const std::wstring& log_dir, const std::wstring& program_folder,
                   const platform::Clock& clock, Progress& progress) {
  Check check;
  check.log_dir = log_dir;
  check.program_folder = program_folder;
  check.time = clock.Local();
  CheckLibraries(check);
  CheckTree(check, progress);
  CheckMachine(check, clock.Seconds());
  CheckDiagnosticLog(check);
  progress.End();
  return check;
}

State StateOf(const Check& check) noexcept {
  State state = State::kOk;
  for (const Finding& finding : check.findings) {
    state = Worse(state, finding.state);
  }
  return state;
}

std::wstring CheckText(const Check& check) {
  std::wstring text = std::wstring(StateName(StateOf(check))) + L": " + Summary(check) + L"\n";
  for (const Finding& finding : check.findings) {
    text += std::wstring(StateName(finding.state)) + L"  " + Printable(finding.path) + L" " +
            Printable(finding.problem) + L": " + finding.remedy + L"\n";
  }
  return text;
}

std::string CheckJson(const Check& check) {
  return JsonText([&](JsonWriter& json) {
    json.TextIn("program", kStatusName);
    json.TextIn("version", kStatusVersion);
    json.TextIn("time", TimeText(check.time));
    json.TextIn("logDir", check.log_dir);
    json.TextIn("programFolder", check.program_folder);
    json.TextIn("state", StateWord(StateOf(check)));
    json.ArrayIn("findings", check.findings, [&](const Finding& finding) {
      json.Object([&] {
        json.TextIn("state", StateWord(finding.state));
        json.TextIn("path", finding.path);
        json.TextIn("problem", finding.problem);
        json.TextIn("remedy", finding.remedy);
      });
    });
  });
}

}  // namespace kyd
