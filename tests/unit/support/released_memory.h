// What memory still holds when it is released.
#pragma once

#include <string>

namespace kyd_test {

// While the object lives, every block that this thread gives to `operator delete` is searched for a
// text, which must not be in it any more. One object at a time.
class ReleasedMemory {
 public:
  explicit ReleasedMemory(std::wstring text);
  ~ReleasedMemory();
  ReleasedMemory(const ReleasedMemory&) = delete;
  ReleasedMemory& operator=(const ReleasedMemory&) = delete;

  // How many blocks held it.
  [[nodiscard]] unsigned Found() const noexcept;
};

}  // namespace kyd_test
