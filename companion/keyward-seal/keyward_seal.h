// keyward-seal: writes a credential file that the stand-in Corvid library opens.
#pragma once

#include <filesystem>
#include <vector>

namespace companion {

/// Runs the tool with the arguments behind the program's name. Reads standard input, writes to
/// standard output and standard error (UTF-8), returns the exit code: 0, or one of sysexits.h.
int RunKeywardSeal(const std::vector<std::filesystem::path>& arguments);

}  // namespace companion
