// A scripted certificate store. It is linked in place of the platform's, so that every failure can
// be produced and every close is recorded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kyd_test {

// What the store answers, and the calls it received.
struct StoreScript {
  // 0 for success; any other value fails with this error number.
  unsigned open_error = 0;
  unsigned find_error = 0;
  unsigned import_error = 0;
  unsigned first_error = 0;
  bool is_pfx = true;
  // Calls that throw, for example because memory is exhausted.
  bool open_throws = false;
  bool find_throws = false;
  bool import_throws = false;
  bool first_throws = false;

  // The calls in order: "open user", "open comp", "find 00FF", "pfx 3", "import 3", "first", "free
  // context", "close store". The numbers after "pfx" and "import" are byte counts.
  std::vector<std::string> calls;
  int open_stores = 0;
  int open_contexts = 0;
};

// Resets the script to its defaults.
StoreScript& NewScript();

}  // namespace kyd_test
