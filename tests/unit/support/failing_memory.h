// Failing memory allocations.
#pragma once

#include <cstddef>
#include <limits>

namespace kyd_test {

// While the object exists, `operator new` throws in this thread for requests of at least `size`
// bytes, at most `times` times. It replaces the operator of the whole test program, so that every
// exception handler can be reached. A threshold above kBeyondTheLog spares the program's log lines.
// Only one object may exist at a time.
class FailingMemory {
 public:
  static constexpr std::size_t kBeyondTheLog = std::size_t{16} * 1024;  // bytes
  // A text of this many characters exceeds the log's lines on every platform.
  static constexpr std::size_t kLongText = kBeyondTheLog;

  enum class Throwing {
    kBadAlloc,  // std::bad_alloc
    kNumber,    // not derived from std::exception
  };
  // Both, with the text that the program then logs after the word "exception".
  struct Thrown {
    Throwing what;
    const char* ending;
  };
  static constexpr Thrown kBoth[] = {{Throwing::kBadAlloc, ""}, {Throwing::kNumber, " etc"}};

  FailingMemory(Throwing what, std::size_t size,
                unsigned times = std::numeric_limits<unsigned>::max());
  ~FailingMemory();
  FailingMemory(const FailingMemory&) = delete;
  FailingMemory& operator=(const FailingMemory&) = delete;
};

}  // namespace kyd_test
