// Finds the companion library beside the program and looks its exports up.
#include "credentials/companion_library.h"

#include "companion/pelham/pelham/comp_info_ctrl.h"
#include "debuglog/cdebuglog.h"
#include "platform/library_tables.h"
#include "platform/module.h"
#include "platform/text.h"
#include "run/upload_run.h"

namespace kyd {

namespace {

constexpr wchar_t kFallbackUserAgent[] = L"VeltraneKeyward/1.15.0";

// Binds one export; false when the library has none of that name.
template <class Entry>
bool Bind(const platform::Library& library, const char* name, Entry& entry) noexcept {
  entry = reinterpret_cast<Entry>(platform::FindExport(library, name));
  return entry != nullptr;
}

// All three are needed, the last one too, although it is never called.
bool BindEntries(UploadRun& run) noexcept {
  const bool decrypt = Bind(run.companionModule, kDecryptExport, run.decryptEntry);
  const bool base64 = Bind(run.companionModule, kBase64DecodeExport, run.base64DecodeEntry);
  const bool event_log = Bind(run.companionModule, kEventLogExport, run.eventLogEntry);
  return decrypt && base64 && event_log;
}

// Whether the file's imports show another run-time than the program's: strings and memory that
// cross the boundary would be corrupted. If they show none, the library is accepted.
bool NeedsOtherRunTime(const std::wstring& path) {
  const auto tables = platform::ReadLibraryTables(path);
  return tables && !platform::ForeignRunTime(tables->imports).empty();
}

bool LoadAndBind(UploadRun& run) {
  std::wstring path;
  if (GetCompanionLibraryPath(path) == 0) {
    path = CompanionFileName();
  }
  run.companionModule = platform::LoadLibraryFile(path);
  if (!run.companionModule) {
    return false;
  }
  if (NeedsOtherRunTime(path) || !BindEntries(run)) {
    run.companionModule.Reset();
    return false;
  }
  return true;
}

}  // namespace

int GetCompanionLibraryPath(std::wstring& path) noexcept {
  try {
    path = platform::FolderPrefixOf(platform::ProgramPath()) + CompanionFileName();
    return 1;
  } catch (...) {  // the caller falls back to the bare name
    return 0;
  }
}

bool LoadCompanionLibrary(UploadRun& run) {
  if (!LoadAndBind(run)) {
    Log().WriteLogA("DLL Load Error (Corvid.dll)");
    return false;
  }
  SetWebAPIUserAgent(run);
  return true;
}

void SetWebAPIUserAgent(UploadRun& run) {
  try {
    run.userAgent = pelham::CompInfoCtrl::CreateWebAPIUserAgent();
    if (run.userAgent.empty()) {
      run.userAgent = kFallbackUserAgent;
    }
  } catch (...) {
    // The fallback is for an empty result only: here requests go out with an empty user agent.
    run.userAgent.clear();
    Log().WriteLogA("<SetWebAPIUserAgent> exception etc");
  }
}

}  // namespace kyd
