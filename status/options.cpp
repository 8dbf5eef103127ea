// The options, through CLI11.
#include "status/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "platform/text.h"
#include "status/version.h"

namespace kyd {

namespace {

constexpr unsigned kMostDays = 366;
constexpr std::uint32_t kLongestAge = 100'000;  // hours, more than eleven years
constexpr std::uint32_t kMostErrors = 1'000'000'000;

constexpr char kDescription[] =
    "Reports what KydLogUploader has done and what is waiting. Nothing is changed, and no "
    "credential file is opened.";
constexpr char kFooter[] =
    "Exit code:\n"
    "  0  ok\n"
    "  1  warning: over a limit; with --check: the next run loses, skips or repeats something\n"
    "  2  critical: over twice a limit (with a limit of 0: over it); with --check: the next run\n"
    "     sends nothing or ends early\n"
    "  3  unknown: something could not be read or written, and nothing is critical\n"
    "  64 wrong usage";

// The values as the library reads them from the arguments.
struct Taken {
  std::string log_dir;
  std::string html_file;
  std::string metrics_file;
  std::uint32_t max_age = 0;
  std::uint32_t max_errors = 0;
};

// A range check that adds nothing to the help: the option's description names the range.
CLI::Validator Between(std::uint32_t least, std::uint32_t most) {
  CLI::Range range(least, most);
  range.description("");
  return range;
}

// With --check only --json is allowed: the other options apply to the report about the last days.
void RefuseMoreThanJson(const CLI::App& app) {
  for (const CLI::Option* const option : app.get_options()) {
    const std::string name = option->get_name();
    if (option->count() != 0 && name != "LogDir" && name != "--check" && name != "--json") {
      throw CLI::ExcludesError("--check", name);
    }
  }
}

void RefuseWhatDoesNotFitTogether(const CLI::App& app, const Taken& taken, bool per_account) {
  if (taken.log_dir.empty()) {
    throw CLI::ValidationError("LogDir", "is empty");
  }
  if (app.count("--html") != 0 && taken.html_file.empty()) {
    throw CLI::ValidationError("--html", "is empty");
  }
  const bool has_metrics = app.count("--openmetrics") != 0;
  if (has_metrics && taken.metrics_file.empty()) {
    throw CLI::ValidationError("--openmetrics", "is empty");
  }
  if (per_account && !has_metrics) {
    throw CLI::RequiresError("--per-account", "--openmetrics");
  }
  if (app.count("--check") != 0) {
    RefuseMoreThanJson(app);
  }
}

Answer AnswerOf(const CLI::App& app, const CLI::ParseError& error) {
  if (error.get_name() == "CallForHelp") {
    return {0, platform::FromUtf8(app.help())};
  }
  if (error.get_name() == "CallForVersion") {
    return {0, std::wstring(kStatusName) + L" " + kStatusVersion + L"\n"};
  }
  return {kExitUsage, std::wstring(kStatusName) + L": " + platform::FromUtf8(error.what()) +
                          L"\nTry --help.\n"};
}

}  // namespace

CommandLine ReadCommandLine(const std::vector<std::string>& arguments, const PathDecoder& path_of) {
  CommandLine line;
  Options& options = line.options;
  Taken taken;
  CLI::App app(kDescription, platform::ToUtf8(kStatusName));
  app.footer(kFooter);
  app.allow_windows_style_options(false);  // the same command line on both platforms
  app.set_help_flag("-h,--help", "Print this help and exit");
  app.set_version_flag("--version", std::string(), "Print the version and exit");
  app.add_option("LogDir", taken.log_dir, "The log directory that KydLogUploader is started with")
      ->required();
  app.add_option("--days", options.days,
                 "Number of daily result files to read, up to today's, 1 to 366 (default: 7)")
      ->check(Between(1U, kMostDays))
      ->type_name("N");
  app.add_flag("--json", options.json, "Print JSON");
  app.add_flag("--check", options.check,
               "Report what would prevent the next run from working; nothing is sent");
  app.add_option("--html", taken.html_file, "Also write a page to this file")->type_name("FILE");
  app.add_option("--openmetrics", taken.metrics_file,
                 "Also write metrics for Prometheus to this file")
      ->type_name("FILE");
  app.add_flag("--per-account", options.per_account, "Also write metrics of each account");
  const CLI::Option* const age =
      app.add_option("--max-age", taken.max_age, "Limit for the age of a waiting file, in hours")
          ->check(Between(0U, kLongestAge))
          ->type_name("HOURS");
  const CLI::Option* const errors =
      app.add_option("--max-errors", taken.max_errors,
                     "Limit for the failed uploads of all days covered")
          ->check(Between(0U, kMostErrors))
          ->type_name("N");
  try {
    // The library expects the arguments in reverse order.
    app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    RefuseWhatDoesNotFitTogether(app, taken, options.per_account);
  } catch (const CLI::ParseError& error) {
    line.answer = AnswerOf(app, error);
    return line;
  }
  options.log_dir = path_of(taken.log_dir);
  options.html_file = path_of(taken.html_file);
  options.metrics_file = path_of(taken.metrics_file);
  if (age->count() != 0) {
    options.limits.max_age_hours = taken.max_age;
  }
  if (errors->count() != 0) {
    options.limits.max_errors = taken.max_errors;
  }
  return line;
}

}  // namespace kyd
