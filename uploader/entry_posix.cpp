// Entry on Linux.
#include <optional>
#include <string>
#include <vector>

#include "platform/text.h"
#include "uploader/run.h"
#include "uploader/text_table_posix.h"

int main(int argc, char** argv) {
  return kyd::RunUploader(kyd::kTexts, [argc, argv]() -> std::optional<std::vector<std::wstring>> {
    std::vector<std::wstring> arguments;
    for (int i = 0; i < argc; ++i) {
      // NOLINTNEXTLINE(performance-inefficient-vector-operation): a run has at most four
      arguments.push_back(platform::FromNativePath(argv[i]));
    }
    return arguments;
  });
}
