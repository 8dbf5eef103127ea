// Binds the companion library and starts the run.
#pragma once

#include <functional>
#include <string>

#include "credentials/companion_run.h"
#include "platform/module.h"

namespace kyd {

// The exports that the companion library has to have.
inline constexpr char kDecryptExport[] = "Corvid_CmpCphr_Decrypt";
inline constexpr char kBase64DecodeExport[] = "Corvid_Base64_Decode";
inline constexpr char kEventLogExport[] = "Corvid_Write_EventLog";

// The name of its file, which is in the program's folder.
[[nodiscard]] inline std::wstring CompanionFileName() {
  return std::wstring(L"Corvid") + platform::kLibraryEnding;
}

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
