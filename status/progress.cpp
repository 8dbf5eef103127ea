// Reads the clock only every few entries: there may be millions.
#include "status/progress.h"

#include <utility>

namespace kyd {

namespace {

constexpr std::int64_t kPatience = 1000;       // ms until the line is shown
constexpr std::int64_t kRefresh = 200;         // ms until it is updated
constexpr std::uint64_t kEntriesPerLook = 64;  // between two readings of the clock

}  // namespace

Progress::Progress(Milliseconds now, Write write)
    : now_(std::move(now)), write_(std::move(write)), next_(now_() + kPatience) {}

Progress::~Progress() {
  End();
}

void Progress::Count() {
  if (++entries_ % kEntriesPerLook != 0 || !now_) {
    return;
  }
  const std::int64_t now = now_();
  if (now < next_) {
    return;
  }
  next_ = now + kRefresh;
  shown_ = true;
  write_(L"\rLooked at " + std::to_wstring(entries_) + L" files ...");
}

void Progress::End() {
  if (std::exchange(shown_, false)) {
    write_(L"\r" + std::wstring(40, L' ') + L"\r");
  }
}

}  // namespace kyd
