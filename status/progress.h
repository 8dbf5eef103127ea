// A progress line on the terminal.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace kyd {

class Progress {
 public:
  using Milliseconds = std::function<std::int64_t()>;      // any monotonic clock
  using Write = std::function<void(const std::wstring&)>;  // to the terminal

  // Shows nothing, because there is no terminal.
  Progress() = default;
  Progress(Milliseconds now, Write write);
  // Removes the line.
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Counts an entry. Shows the line once a second has passed, and keeps it up to date.
  void Count();

  // Removes the line when the work is done.
  void End();

 private:
  Milliseconds now_;
  Write write_;
  std::int64_t next_ = 0;  // when the line is next due
  std::uint64_t entries_ = 0;
  bool shown_ = false;
};

}  // namespace kyd
