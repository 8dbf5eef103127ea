// One line that says that the program is still at it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace kyd {

class Progress {
 public:
  using Milliseconds = std::function<std::int64_t()>;      // any clock that does not go back
  using Write = std::function<void(const std::wstring&)>;  // to the terminal

  // Nothing to see: without a terminal there is nobody to tell.
  Progress() = default;
  Progress(Milliseconds now, Write write);
  // Takes the line away.
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Another entry was looked at. Shows a line once a second has passed, and keeps it up to date.
  void Count();

  // The work is done; the line goes.
  void End();

 private:
  Milliseconds now_;
  Write write_;
  std::int64_t next_ = 0;  // when the line is due
  std::uint64_t entries_ = 0;
  bool shown_ = false;
};

}  // namespace kyd
