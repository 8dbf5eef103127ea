// keyward-seal: writes a credential file that the stand-in Corvid library opens.
#pragma once

#include <string>
#include <vector>

namespace companion {

/// Turns a path on the command line, as the options library returns it, into a wide path.
using PathDecoder = std::wstring (*)(const std::string& argument);

/// Runs the tool with the arguments after the program's name. Reads standard input, writes to
/// standard output and standard error, returns the exit code: 0, or one of sysexits.h.
int RunKeywardSeal(const std::vector<std::string>& arguments, PathDecoder path_of);

}  // namespace companion
