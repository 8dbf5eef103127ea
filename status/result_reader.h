// Reads the result file of a day.
//
// The file may still be growing, may end within a block because a disk was full, and may contain
// foreign text. A run counts once the lines with its numbers are complete; everything outside
// blocks is skipped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kyd {

// The totals of the runs of a day.
struct DayResult {
  std::uint64_t runs = 0;
  std::uint64_t folders = 0;  // of the run that found the most
  std::uint64_t sent = 0;
  std::uint64_t errors = 0;
  std::map<std::wstring, std::uint64_t> errors_by_account;
  std::uint64_t unfinished_blocks = 0;  // blocks without an end
  std::uint64_t strange_lines = 0;      // non-empty lines outside all blocks
  std::wstring last_run;                // time of day, "14:07:09"; empty without a run
  std::uint64_t last_run_sent = 0;
  std::uint64_t last_run_errors = 0;
};

// Accepts the bytes of a result file in pieces of any size. Memory use is small for any content.
class ResultReader {
 public:
  ResultReader();

  void Take(const std::uint8_t* bytes, std::size_t size);

  // Returns the result after all bytes were added. A last line without a line end is ignored,
  // because it may still be being written.
  [[nodiscard]] DayResult Finish();

 private:
  enum class Place { kOutside, kInBlock, kAfterCounts, kInErrors };

  void TakeUnit(std::uint16_t unit);
  void TakeLine(std::wstring_view line);
  void TakeLineOfHead(std::wstring_view line);
  void TakeLineOfErrors(std::wstring_view line);
  void TakeOtherLine(std::wstring_view line);
  void CountRun();

  std::vector<std::wstring> head_;    // lines with the time and the counts
  std::vector<std::wstring> errors_;  // lines above those of the accounts
  std::vector<std::uint8_t> line_;    // UTF-16LE, the part read so far
  bool line_is_too_long_ = false;
  std::optional<std::uint8_t> odd_byte_;

  Place place_ = Place::kOutside;
  std::size_t next_line_ = 0;  // index in head_ or errors_
  unsigned empty_lines_ = 0;   // consecutive ones at the end of a block
  std::vector<std::int64_t> numbers_;
  DayResult day_;
};

}  // namespace kyd
