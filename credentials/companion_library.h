// Binds the companion library, and gets the user agent.
#pragma once

#include <string>

#include "platform/module.h"

namespace kyd {

struct UploadRun;

// The exports that the companion library must have.
inline constexpr char kDecryptExport[] = "Corvid_CmpCphr_Decrypt";
inline constexpr char kBase64DecodeExport[] = "Corvid_Base64_Decode";
inline constexpr char kEventLogExport[] = "Corvid_Write_EventLog";

// The name of its file, which is in the program's folder.
[[nodiscard]] inline std::wstring CompanionFileName() {
  return std::wstring(L"Corvid") + platform::kLibraryEnding;
}

// Loads the companion library from the program's folder, binds its three exports and sets the user
// agent. False if the library or one of the exports is missing: one line is logged, and the run
// must not start.
[[nodiscard]] bool LoadCompanionLibrary(UploadRun& run);

// Fills in the full path of the companion library in the program's own folder. 1 on success, else
// 0.
[[nodiscard]] int GetCompanionLibraryPath(std::wstring& path) noexcept;

// Fills in the run's user agent from the configuration library, with a fallback when that gives an
// empty one; empty when the configuration library throws.
void SetWebAPIUserAgent(UploadRun& run);

}  // namespace kyd
