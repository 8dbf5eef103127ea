// The program between its platform's entry and its exit code.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/string_table.h"

namespace kyd {

// Splits the command line into the program's path and its arguments; std::nullopt on failure.
using ArgumentSource = std::function<std::optional<std::vector<std::wstring>>()>;

// Runs once: diagnostic log, single instance, command line, upload run. Returns 0 always; results
// are visible only in the files.
int RunUploader(platform::InstanceHandle instance, const ArgumentSource& split_arguments);

}  // namespace kyd
