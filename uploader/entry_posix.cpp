// Entry on Linux.
#include <pplx/threadpool.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "platform/text.h"
#include "uploader/run.h"
#include "uploader/text_table_posix.h"

namespace {

// The library would start 40 threads, which wake each other for every block of a file and each keep
// a stack and a part of the heap. A run has one file under way. Should a handler wait for another,
// the library adds a thread.
constexpr std::size_t kLibraryThreads = 1;

void LimitLibraryThreads() noexcept {
  try {
    crossplat::threadpool::initialize_with_threads(kLibraryThreads);
  } catch (...) {
    // Its first use then makes a pool, or fails where failures are handled.
  }
}

}  // namespace

int main(int argc, char** argv) {
  return kyd::RunUploader(kyd::kTexts, [argc, argv]() -> std::optional<std::vector<std::wstring>> {
    LimitLibraryThreads();  // Not before here: a second copy ends without any.
    std::vector<std::wstring> arguments;
    for (int i = 0; i < argc; ++i) {
      arguments.push_back(platform::FromNativePath(argv[i]));
    }
    return arguments;
  });
}
