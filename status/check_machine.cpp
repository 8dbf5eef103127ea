// Checks what a run needs from the machine.
#include <optional>

#include "debuglog/log_settings.h"
#include "logtree/log_tree.h"
#include "platform/access.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/file_search.h"
#include "platform/folders.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/single_instance.h"
#include "platform/text.h"
#include "status/calendar.h"
#include "status/check_parts.h"
#include "status/wording.h"
#include "uploader/instance_name.h"

namespace kyd {

namespace {

constexpr std::int64_t kDay = std::int64_t{24} * 60 * 60;  // seconds

void CheckInstance(Check& check) {
  const std::wstring name = kInstanceName;
  switch (platform::OwnerOfInstance(name)) {
    case platform::InstanceOwner::kNone:
      return;
    case platform::InstanceOwner::kAnotherProcess:
      check.findings.push_back({State::kWarning, UploaderPath(check),
                                L"is running; a copy that is started now ends at once",
                                L"wait until it ends; if it does not, terminate it"});
      return;
    case platform::InstanceOwner::kUnknown:
      check.findings.push_back({State::kUnknown, UploaderPath(check),
                                L"may be running: this could not be determined (" +
                                    ErrorText(platform::LastError()) + L")",
                                L"check the list of processes"});
      return;
    case platform::InstanceOwner::kUnavailable:
      check.findings.push_back(
          {State::kCritical, UploaderPath(check),
           L"cannot make sure that only one copy runs, and would end at once (" +
               ErrorText(platform::LastError()) + L")",
           L"let the user who runs the uploader add files to /run/lock and read " + name +
               L" there"});
      return;
  }
}

// Returns the last write time of a file; std::nullopt if there is none.
std::optional<std::int64_t> TimeOfFile(const std::wstring& folder, const std::wstring& name) {
  platform::FileSearch search(folder, /*ending=*/L"");
  for (bool found = search.First(); found; found = search.Next()) {
    if (search.Current().name == name) {
      const std::optional<platform::EntryDetails> details = search.Details();
      return details ? std::optional<std::int64_t>(details->modified) : std::nullopt;
    }
  }
  return std::nullopt;
}

std::wstring ClockSays(const Check& check, const std::wstring& what) {
  return what + L", but the clock says " + TimeText(check.time) + L": one of the two is wrong";
}

// Without another time source, a wrong clock is noticed only if it contradicts existing files.
void CheckClock(Check& check, std::int64_t now) {
  constexpr wchar_t kSetClock[] = L"set the clock, or remove the file if the clock is right";
  const std::wstring program = UploaderPath(check);
  const std::optional<std::int64_t> built =
      TimeOfFile(check.program_folder, program.substr(check.program_folder.size() + 1));
  if (built && *built > now + kDay) {
    check.findings.push_back(
        {State::kWarning, program, ClockSays(check, L"is dated " + UtcText(*built)),
         L"set the clock, or install the uploader again if the clock is right"});
  }
  const LogTree tree(check.log_dir);
  const std::wstring latest = tree.LatestResult();
  // Up to a day ahead may be another time zone.
  if (latest > tree.ResultPath(DayAfter(check.time))) {
    check.findings.push_back(
        {State::kWarning, latest, ClockSays(check, L"is dated in the future"), kSetClock});
  }
}

std::wstring PathInRegistry(const wchar_t* name) {
  return std::wstring(L"HKEY_LOCAL_MACHINE\\") + corvid::kSettingsKey + L"\\" + name;
}

// A value of another type is treated as absent, which is rarely intended.
void CheckType(Check& check, const platform::RegistryKey& key, const wchar_t* name,
               std::uint32_t type, const wchar_t* type_name) {
  const std::optional<platform::RegistryValue> value = key.Query(name);
  if (value && value->type != type) {
    check.findings.push_back(
        {State::kWarning, PathInRegistry(name),
         std::wstring(L"is not of type ") + type_name + L" and counts as absent",
         std::wstring(L"delete it and create it again as ") + type_name});
  }
}

// Returns the folder itself or its nearest existing parent, or the file in its place; empty if
// there is none.
std::wstring NearestFolder(std::wstring folder) {
  while (!folder.empty() && !platform::IsFolder(folder) &&
         !platform::FileExists(folder).value_or(false)) {
    folder.resize(folder.find_last_not_of(platform::kPathSeparator) + 1);  // npos + 1 is 0
    folder = platform::FolderPrefixOf(folder);
  }
  return folder;
}

void CheckLogFolder(Check& check, const std::wstring& folder) {
  const std::wstring file = platform::JoinPath(folder, corvid::kProgramLogName);
  const bool has_file = platform::FileExists(file).value_or(false);
  const std::wstring nearest = NearestFolder(folder);
  const bool is_writable = has_file ? platform::MayAccess(file, platform::Access::kAppendFile)
                                    : platform::MayAccess(nearest, platform::Access::kAddFile);
  if (is_writable) {
    CheckRoom(check, nearest);
    const bool may_rename =
        platform::MayRemove(file) && platform::MayAccess(nearest, platform::Access::kAddFile);
    if (has_file && !may_rename) {
      check.findings.push_back(
          {State::kWarning, file,
           L"cannot be renamed when it is full, so it keeps growing (" +
               ErrorText(platform::LastError()) + L")",
           L"let the user who runs the uploader rename files there, or change OutputLogDir"});
    }
    return;
  }
  const unsigned error = platform::LastError();
  const std::wstring reason = platform::FileExists(nearest).value_or(false)
                                  ? L"there is a file in its place"
                                  : ErrorText(error);
  check.findings.push_back(
      {State::kWarning, has_file ? file : folder,
       L"cannot be written, so there will be no diagnostic log (" + reason + L")",
       L"let the user who runs the uploader write there, or change OutputLogDir"});
}

}  // namespace

void CheckRoom(Check& check, const std::wstring& folder) {
  const std::optional<std::uint64_t> bytes = platform::FreeBytes(folder);
  if (bytes && *bytes < kLeastRoom) {
    check.findings.push_back(
        {State::kWarning, folder,
         L"has only " + SizeText(*bytes) + L" free, so what a run writes may be lost",
         L"free space on this disk"});
  }
}

void CheckMachine(Check& check, std::int64_t now) {
  CheckInstance(check);
  CheckClock(check, now);
}

void CheckDiagnosticLog(Check& check) {
  const std::uint32_t access =
      platform::IsWow64Process() ? platform::kRegistryRead64 : platform::kRegistryRead;
  const std::optional<platform::RegistryKey> key =
      platform::RegistryKey::OpenLocalMachine(corvid::kSettingsKey, access);
  if (!key) {
    const unsigned error = platform::LastError();
    if (!platform::IsMissing(error)) {
      check.findings.push_back(
          {State::kWarning, PathInRegistry(L"OutputLog"),
           L"cannot be read, so there will be no diagnostic log (" + ErrorText(error) + L")",
           L"let the user who runs the uploader read it"});
    }
    return;
  }
  CheckType(check, *key, L"OutputLog", platform::kRegistryDword, L"DWORD");
  CheckType(check, *key, L"OutputLogSize", platform::kRegistryDword, L"DWORD");
  CheckType(check, *key, L"OutputLogDir", platform::kRegistryText, L"SZ");
  corvid::LogSettings settings;
  corvid::QueryLogSettings(corvid::kProgramLogMask, access, &platform::DefaultLogBase, settings);
  if (settings.enabled && !settings.folder.empty()) {
    CheckLogFolder(check, settings.folder);
  }
}

}  // namespace kyd
