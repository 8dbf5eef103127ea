// Finds what would prevent the uploader's next run from working, without sending or changing
// anything.
//
// Checks with the rights of the user who runs it. The closed libraries are read as files and never
// loaded; no credential file is opened; a run that starts meanwhile is not disturbed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "status/judgement.h"
#include "status/progress.h"

namespace kyd {

struct Finding {
  // Critical: nothing is sent, or the run ends early. Warning: the run works, but something is
  // lost, sent again or left out. Unknown: it could not be determined.
  State state = State::kWarning;
  std::wstring path;     // the file or folder concerned
  std::wstring problem;  // follows the path in a sentence: "is missing"
  std::wstring remedy;   // what to do, an imperative sentence without a full stop
};

struct Check {
  std::wstring log_dir;
  std::wstring program_folder;  // where the uploader and its libraries are
  platform::LocalTime time;
  std::vector<Finding> findings;
};

// `program_folder` is the folder of the uploader.
[[nodiscard]] Check CheckNextRun(const std::wstring& log_dir, const std::wstring& program_folder,
                                 const platform::Clock& clock, Progress& progress);

// Returns the most severe state of all findings.
[[nodiscard]] State StateOf(const Check& check) noexcept;

// The reports: a line with the state, followed by a line for each finding; one JSON object (UTF-8).
[[nodiscard]] std::wstring CheckText(const Check& check);
[[nodiscard]] std::string CheckJson(const Check& check);

}  // namespace kyd
