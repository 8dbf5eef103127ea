// Entry of keyward-seal on Linux.
#include "companion/keyward-seal/keyward_seal.h"
#include "platform/text.h"

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  return companion::RunKeywardSeal(
      arguments, [](const std::string& path) { return platform::FromNativePath(path); });
}
