// The command line.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "status/judgement.h"

namespace kyd {

struct Options {
  std::wstring log_dir;
  unsigned days = 7;
  bool json = false;
  bool check = false;         // check what the next run needs instead
  std::wstring html_file;     // empty: no page
  std::wstring metrics_file;  // empty: no metrics
  bool per_account = false;   // also metrics of each account
  Limits limits;
};

// Output in place of a survey: text for standard output (0) or standard error (64).
struct Answer {
  int exit_code = 0;
  std::wstring text;
};

inline constexpr int kExitUsage = 64;  // EX_USAGE of sysexits.h

struct CommandLine {
  std::optional<Answer> answer;
  Options options;  // valid if there is no answer
};

// Converts an argument to a path.
using PathDecoder = std::function<std::wstring(const std::string&)>;

// Arguments are UTF-8, without the program's name; on Linux a path may hold any bytes.
[[nodiscard]] CommandLine ReadCommandLine(const std::vector<std::string>& arguments,
                                          const PathDecoder& path_of);

}  // namespace kyd
