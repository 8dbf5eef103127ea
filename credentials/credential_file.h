// The encrypted credential file of an account: LogDir\LogWork\<account>\UserData.dat.
//
// Operations give 0 on success, 1 for a failure that has been logged, -1 for an unexpected error
// that has been caught and logged. Neither keys, sessions nor decrypted text are ever logged.
#pragma once

#include <string>

#include "credentials/companion_run.h"
#include "credentials/upload_auth_data.h"

namespace kyd {

inline constexpr int kSucceeded = 0;
inline constexpr int kFailed = 1;       // logged already; this account only
inline constexpr int kUnexpected = -1;  // ends the account loop

// Reads, decrypts and parses the credentials of an account. `record` is valid only with result 0.
[[nodiscard]] int ReadUploadAuthData(const CompanionRun& run, const std::wstring& user,
                                     UploadAuthData& record);

// Reads and decrypts a credential file; nobody else may have it open at that moment.
[[nodiscard]] int ReadAuthFile(const CompanionRun& run, const std::wstring& path,
                               std::wstring& plaintext);

// Fills the record from the decrypted JSON text (RFC 8259), which ends at its first NUL.
[[nodiscard]] int ParseUpldAuthJson(const std::wstring& plaintext, UploadAuthData& record);

// Deletes the account's credential file. A file that is gone already counts as deleted, although
// the failure is logged. Gives 0 or 1, never -1.
int DeleteAuthFile(const CompanionRun& run, const std::wstring& user);

}  // namespace kyd
