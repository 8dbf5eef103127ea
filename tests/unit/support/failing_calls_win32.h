// Windows functions that fail or do part of their work.
#pragma once

#include <cstdint>
#include <vector>

namespace kyd_test {

// While the object exists, the test program calls another function in place of an imported one. It
// patches the program's own import table, which affects the code under test but no other library.
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
