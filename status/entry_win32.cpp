// Entry of KydUploadStatus on Windows: a console program with wide arguments.
#include "platform/text.h"
#include "platform/unattended_win32.h"
#include "status/status.h"

// Called by the C run-time (linked with -municode), hence the C name.
extern "C" int wmain(int argc, wchar_t** argv) {
  platform::RunUnattended();
  std::vector<std::string> arguments;
  for (int i = 1; i < argc; ++i) {
    arguments.push_back(platform::ToUtf8(argv[i]));
  }
  return kyd::RunStatus(arguments,
                        [](const std::string& path) { return platform::FromUtf8(path); });
}
