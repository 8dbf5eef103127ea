// The program between its platform's entry and its exit code.
#pragma once

#include <string>
#include <vector>

#include "status/options.h"

namespace kyd {

// Surveys the folders and reports; returns the exit code. See ReadCommandLine for the arguments.
[[nodiscard]] int RunStatus(const std::vector<std::string>& arguments, const PathDecoder& path_of);

}  // namespace kyd
