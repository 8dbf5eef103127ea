// Entry of keyward-seal on Linux.
#include "companion/keyward-seal/keyward_seal.h"

int main(int count, char** values) {
  const std::vector<std::filesystem::path> arguments(values + (count > 0 ? 1 : 0), values + count);
  return companion::RunKeywardSeal(arguments);
}
