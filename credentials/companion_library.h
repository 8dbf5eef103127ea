// Binds the companion library and determines the user agent.
#pragma once

#include <string>

#include "platform/module.h"

namespace kyd {

struct UploadRun;

// The exports that the companion library must have.
inline constexpr char kDecryptExport[] = "Corvid_CmpCphr_Decrypt";
inline constexpr char kBase64DecodeExport[] = "Corvid_Base64_Decode";
inline constexpr char kEventLogExport[] = "Corvid_Write_EventLog";

// The name of the library file, in the program's folder.
[[nodiscard]] inline std::wstring CompanionFileName() {
  return std::wstring(L"Corvid") + platform::kLibraryEnding;
}

// Loads the companion library from the program's folder, binds its three exports and sets the user
// agent. Returns false if the library or one of the exports is missing: one line is logged, and the
// run must not start.
[[nodiscard]] bool LoadCompanionLibrary(UploadRun& run);

// Sets the full path of the companion library in the program's own folder. Returns 1 on success,
// otherwise 0.
[[nodiscard]] int GetCompanionLibraryPath(std::wstring& path) noexcept;

// Sets the run's user agent from the configuration library, with a fallback if that returns an
// empty one; empty if the configuration library throws.
void SetWebAPIUserAgent(UploadRun& run);

}  // namespace kyd
