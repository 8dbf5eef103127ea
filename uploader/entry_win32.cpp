// Entry on Windows: GUI subsystem, no window.
#include <windows.h>

#include <shellapi.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/unattended_win32.h"
#include "uploader/run.h"

namespace {

std::optional<std::vector<std::wstring>> SplitCommandLine() {
  int count = 0;
  const std::unique_ptr<LPWSTR, decltype(&LocalFree)> arguments(
      CommandLineToArgvW(GetCommandLineW(), &count), &LocalFree);
  if (arguments == nullptr) {
    return std::nullopt;
  }
  return std::vector<std::wstring>(arguments.get(), arguments.get() + count);
}

}  // namespace

int WINAPI WinMain(HINSTANCE instance, HINSTANCE /*previous*/, LPSTR /*command_line*/,
                   int /*show_command*/) {
  platform::RunUnattended();
  return kyd::RunUploader(instance, &SplitCommandLine);
}
