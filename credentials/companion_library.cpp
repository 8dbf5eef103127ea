// Finds the companion library in the program's folder and looks up its exports.
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

// Binds one export; returns false if the library does not have it.
template <class Entry>
bool Bind(const platform::Library& library, const char* name, Entry& entry) noexcept {
  entry = reinterpret_cast<Entry>(platform::FindExport(library, name));
  return entry != nullptr;
}

// All three are required, including the last one, which is never called.
bool BindEntries(UploadRun& run) noexcept {
  const bool decrypt = Bind(run.companionModule, kDecryptExport, run.decryptEntry);
  const bool base64 = Bind(run.companionModule, kBase64DecodeExport, run.base64DecodeEntry);
  const bool event_log = Bind(run.companionModule, kEventLogExport, run.eventLogEntry);
  return decrypt && base64 && event_log;
}

// Whether the imports of the file show a run-time other than the program's, so that strings and
// memory that cross the boundary would be corrupted. A file without such imports is accepted.
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
    // The fallback is only for an empty result: here requests are sent with an empty user agent.
    run.userAgent.clear();
    Log().WriteLogA("<SetWebAPIUserAgent> exception etc");
  }
}

}  // namespace kyd
