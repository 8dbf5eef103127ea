// Uploads the log files that one account has waiting.
#pragma once

#include <string>

#include "credentials/upload_auth_data.h"
#include "upload/account_run.h"

namespace kyd {

inline constexpr int kProcessed = 0;        // to the end, whatever became of the files
inline constexpr int kHttpLayerFailed = 1;  // this account is over, the next one follows
inline constexpr int kRunMustEnd = -1;      // no further account

// Sends every "*.log" file of LogDir\Upload\<account>, one POST per file, and moves each that was
// answered 200 or 202 to LogDir\Archive\<account>. A 401 deletes the credential file. Returns when
// every file has been handled or an exception ended the account; never throws. Counts in `run`.
[[nodiscard]] int UploadOneUser(AccountRun& run, const std::wstring& account,
                                const UploadAuthData& credentials);

}  // namespace kyd
