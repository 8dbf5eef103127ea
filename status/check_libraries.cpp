// The two closed libraries: they must be present, loadable, complete and built for this program.
#include <algorithm>
#include <optional>

#include "companion/pelham/pelham/comp_info_ctrl.h"
#include "credentials/companion_library.h"
#include "logtree/log_tree.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/library_tables.h"
#include "platform/module.h"
#include "platform/text.h"
#include "status/check_parts.h"
#include "status/wording.h"

namespace kyd {

namespace {

using platform::LibraryTables;

constexpr wchar_t kReplaceLibrary[] = L"replace it with the library of the product";
constexpr wchar_t kTakeOtherBuild[] =
    L"install the build of KydLogUploader that is made for this library";

using Names = std::vector<std::string>;

const wchar_t* MachineName(LibraryTables::Machine machine) {
  switch (machine) {
    case LibraryTables::Machine::kX64:
      return L"x86-64";
    case LibraryTables::Machine::kX86:
      return L"32-bit x86";
    case LibraryTables::Machine::kArm64:
      return L"ARM64";
    case LibraryTables::Machine::kOther:
      break;
  }
  return L"another processor";
}

Finding Unreadable(const std::wstring& path, unsigned error) {
  switch (error) {
    case platform::kErrorFileNotFound:
    case platform::kErrorPathNotFound:
      return {State::kCritical, path, L"is missing", L"put the library of the product there"};
    case platform::kErrorBadFormat:
      return {State::kCritical, path, L"is not a library or is damaged", kReplaceLibrary};
    default:
      return {State::kCritical, path, L"cannot be read (" + ErrorText(error) + L")",
              L"let the user who runs the uploader read it"};
  }
}

bool Has(const LibraryTables& tables, const std::string& name) {
  return std::find(tables.exports.begin(), tables.exports.end(), name) != tables.exports.end();
}

// Returns why this program could not load the file; empty if it could.
std::wstring WrongKind(const LibraryTables& tables) {
  if (tables.format != platform::kLibraryFormat) {
    return L"is for another operating system";
  }
  if (tables.machine != LibraryTables::Machine::kX64) {
    return std::wstring(L"is for ") + MachineName(tables.machine) + L", not for x86-64";
  }
  return tables.is_library ? L"" : L"is a program, not a library";
}

// Adds the first problem that makes a library unusable. `foreign_export` is the decorated name that
// `exports` would have if it was built by a different kind of compiler.
void CheckLibrary(Check& check, const std::wstring& name, const Names& exports,
                  const char* foreign_export) {
  const std::wstring path = platform::JoinPath(check.program_folder, name);
  const auto add = [&](const std::wstring& problem, const wchar_t* remedy) {
    check.findings.push_back({State::kCritical, path, problem, remedy});
  };
  Names asked = exports;
  asked.emplace_back(foreign_export);
  const std::optional<LibraryTables> tables = platform::ReadLibraryTables(path, asked);
  if (!tables) {
    check.findings.push_back(Unreadable(path, platform::LastError()));
    return;
  }
  const std::wstring wrong_kind = WrongKind(*tables);
  if (!wrong_kind.empty()) {
    add(wrong_kind, kReplaceLibrary);
    return;
  }
  const std::string foreign = platform::ForeignRunTime(tables->imports);
  if (Has(*tables, foreign_export)) {
    add(L"was built with a different kind of compiler", kTakeOtherBuild);
  } else if (!foreign.empty()) {
    add(L"was built for another C or C++ run-time (" + Printable(platform::FromUtf8(foreign)) +
            L")",
        kTakeOtherBuild);
  } else {
    for (const std::string& needed : exports) {
      if (!Has(*tables, needed)) {
        add(L"does not export " + platform::FromUtf8(needed), kReplaceLibrary);
        return;
      }
    }
  }
}

}  // namespace

std::wstring UploaderPath(const Check& check) {
  return platform::JoinPath(check.program_folder,
                            std::wstring(L"KydLogUploader") + platform::kProgramEnding);
}

void CheckLibraries(Check& check) {
  const std::wstring program = UploaderPath(check);
  if (!platform::FileExists(program).value_or(true)) {
    check.findings.push_back({State::kUnknown, program,
                              L"is missing, so the libraries beside it cannot be checked",
                              L"run the KydUploadStatus that is installed with the uploader"});
    return;
  }
  CheckLibrary(check, CompanionFileName(), {kDecryptExport, kBase64DecodeExport, kEventLogExport},
               "");
  const bool is_msvc = pelham::kUserAgentExport == pelham::kMsvcUserAgentExport;
  CheckLibrary(check, std::wstring(pelham::kLibraryName) + platform::kLibraryEnding,
               {pelham::kUserAgentExport},
               is_msvc ? pelham::kItaniumUserAgentExport : pelham::kMsvcUserAgentExport);
}

}  // namespace kyd
