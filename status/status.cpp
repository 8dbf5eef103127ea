// Command line, survey, judgement, report.
#include "status/status.h"

#include <chrono>
#include <exception>
#include <functional>

#include "platform/console.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/module.h"
#include "platform/text.h"
#include "platform/whole_file.h"
#include "status/check.h"
#include "status/reports.h"
#include "status/version.h"
#include "status/wording.h"

namespace kyd {

namespace {

constexpr int kExitUnknown = static_cast<int>(State::kUnknown);

// A failure to write to standard error cannot be reported.
void ReportProblem(const std::wstring& text) {
  static_cast<void>(platform::WriteErrors(std::wstring(kStatusName) + L": " + text + L"\n"));
}

std::int64_t SteadyMilliseconds() {
  using std::chrono::milliseconds;
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<milliseconds>(now).count();
}

// Calls a function with a progress line if there is a terminal.
template <class Function>
auto WithProgress(const Function& function) {
  if (!platform::ErrorsGoToTerminal()) {
    Progress hidden;
    return function(hidden);
  }
  Progress progress(&SteadyMilliseconds, [](const std::wstring& text) {
    static_cast<void>(platform::WriteErrors(text));
  });
  return function(progress);
}

// Refuses devices and pipes, which would be replaced by a file; the move itself refuses folders.
bool CanBeReplaced(const std::wstring& path) {
  return !platform::FileExists(path).value_or(false) ||
         platform::File::OpenUnobtrusive(path).IsOpen();
}

// Replaces the file in one step, because it may be read at any time. True without a path, when no
// file was requested.
bool WriteFileOf(const std::wstring& path, const std::function<std::string()>& content) {
  if (path.empty()) {
    return true;
  }
  const std::string bytes = content();
  if (CanBeReplaced(path) && platform::ReplaceWholeFile(path, bytes.data(), bytes.size(),
                                                        platform::FileReaders::kEveryone)) {
    return true;
  }
  const unsigned error = platform::LastError();
  ReportProblem(L"cannot write " + Printable(path) + L" (" + ErrorText(error) + L")");
  return false;
}

bool Print(const std::wstring& report) {
  const bool printed = platform::WriteOutput(report);
  if (!printed) {
    const unsigned error = platform::LastError();
    ReportProblem(L"cannot print the report (" + ErrorText(error) + L")");
  }
  return printed;
}

int Report(const Options& options) {
  const Survey survey = WithProgress([&](Progress& progress) {
    return TakeSurvey(options.log_dir, options.days, platform::SystemClock(), progress);
  });
  const Verdict verdict = Judge(survey, options.limits);
  int exit_code = static_cast<int>(verdict.state);
  if (!WriteFileOf(options.html_file, [&] { return HtmlReport(survey, verdict); })) {
    exit_code = kExitUnknown;
  }
  if (!WriteFileOf(options.metrics_file,
                   [&] { return MetricsReport(survey, options.per_account); })) {
    exit_code = kExitUnknown;
  }
  const std::wstring report =
      options.json ? platform::FromUtf8(JsonReport(survey, verdict)) : TextReport(survey, verdict);
  return Print(report) ? exit_code : kExitUnknown;
}

int ReportCheck(const Options& options) {
  const std::wstring folder = platform::FolderOf(platform::ProgramPath());
  const Check check = WithProgress([&](Progress& progress) {
    return CheckNextRun(options.log_dir, folder, platform::SystemClock(), progress);
  });
  const std::wstring report =
      options.json ? platform::FromUtf8(CheckJson(check)) : CheckText(check);
  return Print(report) ? static_cast<int>(StateOf(check)) : kExitUnknown;
}

int PrintAnswer(const Answer& answer) {
  if (answer.exit_code != 0) {
    static_cast<void>(platform::WriteErrors(answer.text));
    return answer.exit_code;
  }
  return platform::WriteOutput(answer.text) ? 0 : kExitUnknown;
}

}  // namespace

int RunStatus(const std::vector<std::string>& arguments, const PathDecoder& path_of) {
  try {
    const CommandLine line = ReadCommandLine(arguments, path_of);
    if (line.answer) {
      return PrintAnswer(*line.answer);
    }
    return line.options.check ? ReportCheck(line.options) : Report(line.options);
  } catch (const std::exception& unexpected) {
    ReportProblem(platform::FromUtf8(unexpected.what()));
    return kExitUnknown;
  }
}

}  // namespace kyd
