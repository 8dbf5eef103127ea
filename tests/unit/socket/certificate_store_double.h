// A certificate store that the test scripts, in place of the system's: it links instead of the
// platform's own, so that every failure can be produced and every close is recorded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kyd_test {

// What the store answers, and what was asked of it.
struct StoreScript {
  // A failure sets this error number; 0 means success.
  unsigned open_error = 0;
  unsigned find_error = 0;
  unsigned import_error = 0;
  unsigned first_error = 0;
  bool is_pfx = true;
  // The calls that fail with an exception, for example for lack of memory.
  bool open_throws = false;
  bool find_throws = false;
  bool import_throws = false;
  bool first_throws = false;

  // The calls in order: "open user", "open comp", "find 00FF", "pfx 3", "import 3", "first",
  // "free context", "close store". Numbers are bytes.
  std::vector<std::string> calls;
  int open_stores = 0;
  int open_contexts = 0;
};

// Starts over with the default script.
StoreScript& NewScript();

}  // namespace kyd_test
