// The folders and files below the log directory.
//
//   Upload\<account>\*.log          waiting log files
//   Upload\NoSent_LogFiles          never an account
//   Archive\<account>\              sent files, and force-flushed ones with ".bak" appended
//   LogWork\<account>\UserData.dat  the account's credentials
//   UploadResult\UploadResultYYYYMMDD.log  the result file of a day
//
// Another component creates the folders; none is created here. Paths are joined without
// normalisation.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/file_search.h"

namespace kyd {

// Owns these names: all other code gets paths, searches and moves from this class. It logs nothing.
// Failures set platform::LastError, which freeing memory does not change.
class LogTree {
 public:
  // Refers to the text, which must outlive it: a copy for every account would cost time.
  explicit LogTree(std::wstring_view log_dir) noexcept : log_dir_(log_dir) {}

  // Calls `visit` with the name of each account below Upload, in the order of the system's search,
  // until it returns false. Returns the search, still open: the caller decides when to close it,
  // and its Failure() tells whether the whole folder was read.
  [[nodiscard]] platform::FileSearch ForEachAccount(
      const std::function<bool(const std::wstring& account)>& visit) const;

  // The account's waiting files, and everything in its archive.
  [[nodiscard]] platform::FileSearch WaitingFiles(const std::wstring& account) const;
  [[nodiscard]] platform::FileSearch ArchivedFiles(const std::wstring& account) const;

  // Moves a waiting file to the archive. An existing file is never replaced, and a missing folder
  // is not created.
  [[nodiscard]] bool Archive(const std::wstring& account, const std::wstring& file) const;

  // The same for a file that has not been sent: ".bak" is appended to its name.
  [[nodiscard]] bool ArchiveUnsent(const std::wstring& account, const std::wstring& file) const;

  // Whether a name in the archive is that of a sent file; the others were moved without being sent.
  [[nodiscard]] static bool IsSent(const std::wstring& file);
  [[nodiscard]] static bool IsUnsent(const std::wstring& file);

  // Returns the path of the result file with the latest date in its name; empty if there is none.
  [[nodiscard]] std::wstring LatestResult() const;

  [[nodiscard]] std::wstring UploadPath() const;
  [[nodiscard]] std::wstring UploadPath(const std::wstring& account) const;
  [[nodiscard]] std::wstring UploadPath(const std::wstring& account,
                                        const std::wstring& file) const;
  // The search pattern of WaitingFiles, as a path for reports.
  [[nodiscard]] std::wstring WaitingPattern(const std::wstring& account) const;
  [[nodiscard]] std::wstring ArchivePath(const std::wstring& account) const;
  [[nodiscard]] std::wstring ArchivePath(const std::wstring& account,
                                         const std::wstring& file) const;
  [[nodiscard]] std::wstring CredentialPath(const std::wstring& account) const;
  [[nodiscard]] std::wstring ResultPath(const platform::LocalTime& day) const;

 private:
  std::wstring_view log_dir_;
};

}  // namespace kyd
