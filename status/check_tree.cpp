// Checks the folders of the product and the rights that the uploader needs in them. A problem
// shared by many accounts is one finding.
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "logtree/log_tree.h"
#include "platform/access.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/file_search.h"
#include "platform/text.h"
#include "status/check_parts.h"
#include "status/wording.h"

namespace kyd {

namespace {

using platform::Access;

// Checking the rights of a file takes far longer than finding it, and most files of a folder have
// the same rights.
constexpr std::size_t kMostFilesTried = 1000;

enum Trouble : std::size_t {
  kClosedAccount,
  kOddEntry,
  kClosedFile,
  kStuckFile,
  kNoArchive,
  kClosedArchive,
  kFullArchive,
  kNoCredentials,
  kClosedCredentials,
  kStuckCredentials,
  kTroubles,
};

struct TroubleText {
  State state;
  const wchar_t* problem;
  const wchar_t* remedy;
};

constexpr TroubleText kTroubleTexts[kTroubles] = {
    {State::kWarning, L"cannot be listed, so none of the account's files are sent",
     L"let the user who runs the uploader list it"},
    {State::kCritical, L"is a folder; a run ends there", L"move it out of the upload folder"},
    {State::kCritical, L"cannot be read; a run ends there",
     L"let the user who runs the uploader read it, or move it away"},
    {State::kWarning, L"cannot be moved away and would be sent by every run",
     L"let the user who runs the uploader remove it"},
    {State::kWarning, L"is missing, so accepted files stay and are sent by every run",
     L"create it, or let the product do so"},
    {State::kWarning,
     L"does not accept new files, so accepted files stay and are sent by every run",
     L"let the user who runs the uploader add files"},
    {State::kWarning, L"is on a full disk, so accepted files stay and are sent by every run",
     L"free space on this disk"},
    {State::kWarning, L"is missing, so none of the account's files are sent",
     L"let the product write new credentials"},
    {State::kWarning, L"cannot be read, so none of the account's files are sent",
     L"let the user who runs the uploader read it"},
    {State::kWarning, L"cannot be removed when the service refuses it",
     L"let the user who runs the uploader remove it"},
};

// A move within one disk needs no space. Two disks rarely have the same number of free bytes.
bool IsOnOtherFullDisk(const std::wstring& archive, const std::wstring& upload) {
  const std::optional<std::uint64_t> bytes = platform::FreeBytes(archive);
  return bytes && *bytes < kLeastRoom && bytes != platform::FreeBytes(upload);
}

class TreeCheck {
 public:
  TreeCheck(Check& check, Progress& progress)
      : check_(check), progress_(progress), tree_(check.log_dir) {}

  void Run() {
    const std::wstring upload = tree_.UploadPath();
    if (!platform::MayAccess(upload, Access::kListFolder)) {
      const unsigned error = platform::LastError();
      check_.findings.push_back({State::kCritical, upload, ErrorProblem(error, L"listed"),
                                 platform::IsMissing(error)
                                     ? L"check the log directory, or let the product create it"
                                     : L"let the user who runs the uploader list it"});
    } else {
      // The folder was listed a moment ago; a failure since then is ignored.
      static_cast<void>(tree_.ForEachAccount([this](const std::wstring& account) {
        progress_.Count();
        CheckAccount(account);
        return true;
      }));
    }
    Report();
    CheckResults();
  }

 private:
  struct Seen {
    std::size_t count = 0;
    std::wstring first;
    unsigned error = 0;
  };

  static std::wstring ErrorProblem(unsigned error, const wchar_t* what) {
    return platform::IsMissing(error)
               ? std::wstring(L"is missing")
               : std::wstring(L"cannot be ") + what + L" (" + ErrorText(error) + L")";
  }

  void Note(Trouble trouble, const std::wstring& path) {
    Seen& seen = seen_[trouble];
    if (++seen.count == 1) {
      seen.first = path;
    }
  }

  void Report() {
    for (std::size_t i = 0; i < kTroubles; ++i) {
      if (seen_[i].count == 0) {
        continue;
      }
      std::wstring problem = kTroubleTexts[i].problem;
      if (seen_[i].count > 1) {
        problem += L" (and " + std::to_wstring(seen_[i].count - 1) + L" more like it)";
      }
      check_.findings.push_back(
          {kTroubleTexts[i].state, seen_[i].first, problem, kTroubleTexts[i].remedy});
    }
  }

  void CheckAccount(const std::wstring& name) {
    const std::wstring folder = tree_.UploadPath(name);
    if (!platform::MayAccess(folder, Access::kListFolder)) {
      Note(kClosedAccount, folder);
      return;
    }
    bool has_files = false;
    platform::FileSearch search = tree_.WaitingFiles(name);
    for (bool found = search.First(); found; found = search.Next()) {
      progress_.Count();
      has_files = true;
      CheckWaiting(name, search.Current());
    }
    const std::wstring archive = tree_.ArchivePath(name);
    if (!platform::MayAccess(archive, Access::kAddFile)) {
      Note(platform::IsMissing(platform::LastError()) ? kNoArchive : kClosedArchive, archive);
    } else if (IsOnOtherFullDisk(archive, folder)) {
      Note(kFullArchive, archive);
    }
    if (has_files) {
      CheckCredentials(name);
    }
  }

  void CheckWaiting(const std::wstring& account, const platform::FoundEntry& entry) {
    if (entry.is_folder) {
      Note(kOddEntry, tree_.UploadPath(account, entry.name));
      return;
    }
    if (tried_ == kMostFilesTried) {
      return;
    }
    ++tried_;
    const std::wstring path = tree_.UploadPath(account, entry.name);
    if (!platform::MayAccess(path, Access::kReadFile)) {
      // A file that has been sent meanwhile is not a problem.
      if (!platform::IsMissing(platform::LastError())) {
        Note(kClosedFile, path);
      }
      return;
    }
    if (!platform::MayRemove(path) && !platform::IsMissing(platform::LastError())) {
      Note(kStuckFile, path);
    }
  }

  void CheckCredentials(const std::wstring& account) {
    const std::wstring path = tree_.CredentialPath(account);
    const std::optional<bool> exists = platform::FileExists(path);
    if (exists && !*exists) {
      Note(kNoCredentials, path);
      return;
    }
    // Credential files are never opened, not even to check their rights.
    if (platform::kAccessOpensFiles) {
      return;
    }
    if (!platform::MayAccess(path, Access::kReadFile)) {
      Note(kClosedCredentials, path);
      return;
    }
    if (!platform::MayRemove(path)) {
      Note(kStuckCredentials, path);
    }
  }

  void CheckResults() {
    const std::wstring today = tree_.ResultPath(check_.time);
    const std::wstring folder = platform::FolderOf(today);
    const std::optional<bool> exists = platform::FileExists(today);
    const bool is_there = exists && *exists;
    if (is_there ? platform::MayAccess(today, Access::kAppendFile)
                 : platform::MayAccess(folder, Access::kAddFile)) {
      CheckRoom(check_, folder);
      return;
    }
    const unsigned error = platform::LastError();
    check_.findings.push_back({State::kWarning, is_there ? today : folder,
                               ErrorProblem(error, L"written to") + L", so runs leave no results",
                               platform::IsMissing(error)
                                   ? L"create it, or let the product do so"
                                   : L"let the user who runs the uploader write to it"});
  }

  Check& check_;
  Progress& progress_;
  const LogTree tree_;
  std::array<Seen, kTroubles> seen_;
  std::size_t tried_ = 0;
};

}  // namespace

void CheckTree(Check& check, Progress& progress) {
  TreeCheck(check, progress).Run();
}

}  // namespace kyd
