// Binds the companion library and starts the run.
#pragma once

#include <functional>
#include <string>

#include "credentials/companion_run.h"

namespace kyd {

// Starts the upload run, with or without force flush.
using StartUploadRun = std::function<void(bool forceFlush)>;

// Loads the companion library from the program's folder and binds its three exports. With all of
// them sets the user agent and calls `start`; otherwise logs one line and starts nothing.
void LoadCompanionLibrary(CompanionRun& run, bool forceFlush, const StartUploadRun& start);

// Fills in the full path of the companion library in the program's own folder. 1 on success, else
// 0.
[[nodiscard]] int GetCompanionLibraryPath(std::wstring& path) noexcept;

// Fills in the run's user agent from the configuration library, with a fallback when that gives an
// empty one; empty when the configuration library throws.
void SetWebAPIUserAgent(CompanionRun& run);

}  // namespace kyd
