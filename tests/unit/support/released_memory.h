// The content of memory when it is released.
#pragma once

#include <string>

namespace kyd_test {

// While the object exists, every block that this thread passes to `operator delete` is searched for
// a text that must have been wiped. Only one object may exist at a time.
class ReleasedMemory {
 public:
  explicit ReleasedMemory(std::wstring text);
  ~ReleasedMemory();
  ReleasedMemory(const ReleasedMemory&) = delete;
  ReleasedMemory& operator=(const ReleasedMemory&) = delete;

  // The number of blocks that contained it.
  [[nodiscard]] unsigned Found() const noexcept;
};

}  // namespace kyd_test
