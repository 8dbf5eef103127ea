// The folders and files below the log directory, each name once.
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

#include <string>

#include "platform/clock.h"
#include "platform/file_search.h"

namespace kyd {

inline constexpr wchar_t kEveryEntry[] = L"*.*";
inline constexpr wchar_t kLogFiles[] = L"*.log";
inline constexpr wchar_t kFlushedEnding[] = L".bak";

// Folder, separator, name.
[[nodiscard]] std::wstring PathBelow(const std::wstring& folder, const std::wstring& name);

// The folder of all accounts' waiting files, and that of one account.
[[nodiscard]] std::wstring UploadPath(const std::wstring& log_dir);
[[nodiscard]] std::wstring UploadPath(const std::wstring& log_dir, const std::wstring& account);

// Where an account's files go.
[[nodiscard]] std::wstring ArchivePath(const std::wstring& log_dir, const std::wstring& account);

// The account's credential file.
[[nodiscard]] std::wstring CredentialPath(const std::wstring& log_dir, const std::wstring& account);

// The result file of a day.
[[nodiscard]] std::wstring ResultPath(const std::wstring& log_dir, const platform::LocalTime& day);

// Whether an entry of the upload folder is an account's folder.
[[nodiscard]] bool IsAccount(const platform::FoundEntry& entry);

}  // namespace kyd
