// The folders and files below the log directory.
//
//   Upload\<account>\*.log          waiting log files
//   Upload\NoSent_LogFiles          never an account
//   Archive\<account>\              sent files, and force-flushed ones with ".bak" appended
//   LogWork\<account>\UserData.dat  the account's credentials
//   UploadResult\UploadResultYYYYMMDD.log  the result file of a day
//
// Another component provides the folders; none is created here. Paths are joined and not
// normalised.
#pragma once

#include <functional>
#include <string>

#include "platform/clock.h"
#include "platform/file_search.h"

namespace kyd {

// The one owner of these names: everyone else asks it for paths, searches and moves. It logs
// nothing. Failures leave their number in platform::LastError, which freeing memory does not
// change.
class LogTree {
 public:
  explicit LogTree(std::wstring log_dir);

  // Calls `visit` with the name of each account below Upload, in the order of the system's search,
  // until it gives false. Gives the search, still open: callers close it where the contract does,
  // and its Failure() tells right away why the folder could not be read to its end.
  [[nodiscard]] platform::FileSearch ForEachAccount(
      const std::function<bool(const std::wstring& account)>& visit) const;

  // The account's waiting files, and whatever lies in its archive.
  [[nodiscard]] platform::FileSearch WaitingFiles(const std::wstring& account) const;
  [[nodiscard]] platform::FileSearch ArchivedFiles(const std::wstring& account) const;

  // Moves a waiting file to the archive. A file of that name is never replaced, and a missing
  // folder not created.
  [[nodiscard]] bool Archive(const std::wstring& account, const std::wstring& file) const;

  // The same for a file that has not been sent: ".bak" is appended to its name.
  [[nodiscard]] bool ArchiveUnsent(const std::wstring& account, const std::wstring& file) const;

  // Whether a file of the archive has the name of one that was sent, or of one that was not.
  [[nodiscard]] static bool IsSent(const std::wstring& file);
  [[nodiscard]] static bool IsUnsent(const std::wstring& file);

  // The path of the result file with the latest day in its name; empty without one.
  [[nodiscard]] std::wstring LatestResult() const;

  [[nodiscard]] std::wstring UploadPath() const;
  [[nodiscard]] std::wstring UploadPath(const std::wstring& account) const;
  [[nodiscard]] std::wstring UploadPath(const std::wstring& account,
                                        const std::wstring& file) const;
  [[nodiscard]] std::wstring ArchivePath(const std::wstring& account) const;
  [[nodiscard]] std::wstring ArchivePath(const std::wstring& account,
                                         const std::wstring& file) const;
  [[nodiscard]] std::wstring CredentialPath(const std::wstring& account) const;
  [[nodiscard]] std::wstring ResultPath(const platform::LocalTime& day) const;

 private:
  std::wstring log_dir_;
};

}  // namespace kyd
