// Matches the lines of a block against the formats with which the uploader writes them.
#include "status/result_reader.h"

#include <algorithm>
#include <utility>

#include "debuglog/format.h"
#include "platform/text.h"
#include "status/format_match.h"
#include "uploader/result_texts.h"

namespace kyd {

namespace {

constexpr std::wstring_view kLineEnd = L"\r\n";
// Bytes. The longest line of a block holds the log directory, which the uploader truncates at 2047
// characters.
constexpr std::size_t kLongestLine = 8192;
// Indexes of the numbers in the head of a block.
enum Number : std::size_t { kHour = 3, kMinute, kSecond, kTotal, kSent = 9, kErrors, kNumbers };

std::vector<std::wstring> LinesOf(std::wstring_view text) {
  std::vector<std::wstring> lines;
  for (std::size_t end = 0; (end = text.find(kLineEnd)) != std::wstring_view::npos;) {
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(end + kLineEnd.size());
  }
  return lines;
}

// The uploader prints a 32-bit counter as a signed number.
std::uint64_t Counter(std::int64_t number) {
  return static_cast<std::uint32_t>(number);
}

}  // namespace

ResultReader::ResultReader()
    : head_(LinesOf(std::wstring(kResultTimeText) + kResultCountsText)),
      errors_(LinesOf(kResultErrorsText)) {}

void ResultReader::Take(const std::uint8_t* bytes, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    if (!odd_byte_) {
      odd_byte_ = bytes[i];
      continue;
    }
    const unsigned unit = *odd_byte_ | (static_cast<unsigned>(bytes[i]) << 8U);
    odd_byte_.reset();
    TakeUnit(static_cast<std::uint16_t>(unit));
  }
}

DayResult ResultReader::Finish() {
  if (place_ != Place::kOutside || !line_.empty()) {
    ++day_.unfinished_blocks;
  }
  return std::move(day_);
}

void ResultReader::TakeUnit(std::uint16_t unit) {
  if (unit != L'\n') {
    if (line_.size() >= kLongestLine) {
      line_is_too_long_ = true;
      return;
    }
    line_.push_back(static_cast<std::uint8_t>(unit & 0xFFU));
    line_.push_back(static_cast<std::uint8_t>(unit >> 8U));
    return;
  }
  std::wstring line = platform::FromUtf16Le(line_.data(), line_.size());
  line_.clear();
  if (!line.empty() && line.back() == L'\r') {
    line.pop_back();
  }
  // A line from another source matches no format, but a truncated one might.
  TakeLine(std::exchange(line_is_too_long_, false) ? L"?" : line);
}

void ResultReader::TakeLine(std::wstring_view line) {
  if (line == head_.front()) {
    if (place_ != Place::kOutside) {
      ++day_.unfinished_blocks;
    }
    place_ = Place::kInBlock;
    next_line_ = 1;
    numbers_.clear();
    return;
  }
  switch (place_) {
    case Place::kOutside:
      day_.strange_lines += line.empty() ? 0 : 1;
      break;
    case Place::kInBlock:
      TakeLineOfHead(line);
      break;
    case Place::kAfterCounts:
      if (line == errors_.front()) {
        place_ = Place::kInErrors;
        next_line_ = 1;
        break;
      }
      TakeOtherLine(line);
      break;
    case Place::kInErrors:
      TakeLineOfErrors(line);
      break;
  }
}

void ResultReader::TakeLineOfHead(std::wstring_view line) {
  const std::optional<FormatFields> fields = MatchFormat(head_[next_line_], line);
  if (!fields) {
    ++day_.unfinished_blocks;
    place_ = Place::kOutside;
    return;
  }
  numbers_.insert(numbers_.end(), fields->numbers.begin(), fields->numbers.end());
  if (++next_line_ == head_.size()) {
    CountRun();
    place_ = Place::kAfterCounts;
    empty_lines_ = 0;
  }
}

void ResultReader::CountRun() {
  if (numbers_.size() != kNumbers) {
    return;  // Impossible with the current texts.
  }
  ++day_.runs;
  day_.folders = std::max(day_.folders, Counter(numbers_[kTotal]));
  day_.last_run_sent = Counter(numbers_[kSent]);
  day_.last_run_errors = Counter(numbers_[kErrors]);
  day_.sent += day_.last_run_sent;
  day_.errors += day_.last_run_errors;
  day_.last_run =
      FormatBounded(64, L"%02d:%02d:%02d", numbers_[kHour], numbers_[kMinute], numbers_[kSecond]);
}

void ResultReader::TakeLineOfErrors(std::wstring_view line) {
  if (next_line_ < errors_.size()) {
    const bool fits = MatchFormat(errors_[next_line_], line).has_value();
    ++next_line_;
    // A very long log directory is truncated, including the text after it.
    if (fits || next_line_ < errors_.size()) {
      return;
    }
  }
  const std::wstring with_end = std::wstring(line) + std::wstring(kLineEnd);
  if (with_end.size() >= kResultLineCapacity) {
    // The uploader truncated a long name including the line end, so the next line continues this
    // one.
    empty_lines_ = 1;
    return;
  }
  if (const std::optional<FormatFields> fields = MatchFormat(kResultErrorLine, with_end)) {
    day_.errors_by_account[fields->texts.front()] += Counter(fields->numbers.front());
    empty_lines_ = 0;
    return;
  }
  TakeOtherLine(line);
}

// Two empty lines end a block.
void ResultReader::TakeOtherLine(std::wstring_view line) {
  if (!line.empty()) {
    ++day_.strange_lines;
    empty_lines_ = 0;
    return;
  }
  if (++empty_lines_ == LinesOf(kResultBlockEnd).size()) {
    place_ = Place::kOutside;
  }
}

}  // namespace kyd
