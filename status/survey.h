// The current contents of the log directory, and the uploader's results of the last days.
//
// Changes nothing, opens no credential file and locks no file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "status/progress.h"
#include "status/result_reader.h"

namespace kyd {

struct WaitingFiles {
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::optional<std::int64_t> oldest;  // last write of the oldest one, seconds since 1970
};

struct ArchivedFiles {
  bool has_folder = false;     // without it no file can be moved there
  std::uint64_t files = 0;     // all files
  std::uint64_t not_sent = 0;  // of these, files moved by a force flush
};

struct AccountStatus {
  std::wstring name;
  bool has_folder = true;  // false for an account that only a result file names
  WaitingFiles waiting;
  ArchivedFiles archived;
  std::optional<bool> has_credentials;  // std::nullopt if unknown
  std::uint64_t errors = 0;             // failed files in the surveyed days
  std::optional<platform::LocalTime> last_error_day;
};

struct DayStatus {
  platform::LocalTime day;  // only the date is set
  DayResult result;
};

// A file or folder that could not be read.
struct Unreadable {
  std::wstring path;
  unsigned error = 0;  // LastError
};

struct Survey {
  std::wstring log_dir;
  platform::LocalTime time;
  std::int64_t now = 0;                 // the same time in seconds since 1970
  std::vector<AccountStatus> accounts;  // by name
  std::vector<DayStatus> days;          // today first
  std::vector<Unreadable> unreadable;
};

// Sums over all accounts or days.
[[nodiscard]] WaitingFiles AllWaiting(const Survey& survey);
[[nodiscard]] ArchivedFiles AllArchived(const Survey& survey);
struct AllDays {
  std::uint64_t runs = 0;
  std::uint64_t sent = 0;
  std::uint64_t errors = 0;
};
[[nodiscard]] AllDays SumOfDays(const Survey& survey);

// Returns the seconds since a time; 0 for a time in the future.
[[nodiscard]] std::int64_t AgeOf(std::int64_t moment, std::int64_t now) noexcept;

// Surveys the folders. Reads the result files of `days` days, today's first.
[[nodiscard]] Survey TakeSurvey(const std::wstring& log_dir, unsigned days,
                                const platform::Clock& clock, Progress& progress);

}  // namespace kyd
