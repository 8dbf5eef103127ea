// Functions of Windows that fail, or do half of their work, when a test says so.
#pragma once

#include <cstdint>
#include <vector>

namespace kyd_test {

// While the object lives, the test program calls another function in place of one that it imports.
// The program's own table of imports is changed, so it holds for the code under test, and for no
// other library.
class ReplacedImport {
 public:
  // `function` is the imported name, such as "ReadFile".
  template <class Function>
  ReplacedImport(const char* function, Function* replacement)
      : ReplacedImport(function, reinterpret_cast<std::uintptr_t>(replacement)) {}
  ~ReplacedImport();
  ReplacedImport(const ReplacedImport&) = delete;
  ReplacedImport& operator=(const ReplacedImport&) = delete;

 private:
  ReplacedImport(const char* function, std::uintptr_t replacement);

  std::vector<std::uintptr_t*> slots_;
  std::uintptr_t original_ = 0;
};

}  // namespace kyd_test
