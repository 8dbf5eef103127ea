// Entry of keyward-seal on Windows: wide arguments, binary input.
#include <fcntl.h>
#include <io.h>

#include <cstdio>

#include "companion/keyward-seal/keyward_seal.h"
#include "platform/text.h"

// Called by the C run-time (linked with -municode), hence the C name.
extern "C" int wmain(int argc, wchar_t** argv) {
  _setmode(_fileno(stdin), _O_BINARY);
  std::vector<std::string> arguments;
  for (int i = 1; i < argc; ++i) {
    arguments.push_back(platform::ToUtf8(argv[i]));
  }
  return companion::RunKeywardSeal(
      arguments, [](const std::string& path) { return platform::FromUtf8(path); });
}
