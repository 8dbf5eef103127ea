// Entry of keyward-seal on Windows: wide arguments, binary input, messages in UTF-8.
#include <windows.h>
// fcntl.h and io.h are the C run-time's.
#include <fcntl.h>
#include <io.h>

#include <cstdio>

#include "companion/keyward-seal/keyward_seal.h"

namespace {

// The console belongs to the caller and gets its code page back.
class Utf8Console {
 public:
  Utf8Console() : previous_(GetConsoleOutputCP()) { SetConsoleOutputCP(CP_UTF8); }
  Utf8Console(const Utf8Console&) = delete;
  Utf8Console& operator=(const Utf8Console&) = delete;
  ~Utf8Console() {
    std::fflush(stdout);
    SetConsoleOutputCP(previous_);
  }

 private:
  UINT previous_;
};

}  // namespace

// Called by the C run-time (linked with -municode), hence the C name.
extern "C" int wmain(int count, wchar_t** values) {
  const Utf8Console console;
  _setmode(_fileno(stdin), _O_BINARY);
  const std::vector<std::filesystem::path> arguments(values + (count > 0 ? 1 : 0), values + count);
  return companion::RunKeywardSeal(arguments);
}
