// Memory that runs out when a test says so.
#pragma once

#include <cstddef>
#include <limits>

namespace kyd_test {

// While the object lives, `operator new` fails in this thread for requests of at least `size`
// bytes, at most `times` times. It replaces the operator of the whole test program, so that every
// handler for "whatever is thrown in here" can be reached. A threshold above kBeyondTheLog spares
// the lines that the program logs meanwhile. One object at a time.
class FailingMemory {
 public:
  static constexpr std::size_t kBeyondTheLog = std::size_t{16} * 1024;  // bytes
  // A text of so many characters is beyond the log's lines on every platform.
  static constexpr std::size_t kLongText = kBeyondTheLog;

  enum class Throwing {
    kBadAlloc,  // as the standard has it
    kNumber,    // an exception that is no standard one
  };
  // Both, with what the program then puts behind the word "exception".
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
