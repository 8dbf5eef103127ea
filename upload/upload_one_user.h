// Uploads the log files that one account has waiting.
#pragma once

#include <string>

#include "credentials/upload_auth_data.h"
#include "run/upload_run.h"
#include "socket/http_client.h"

namespace kyd {

// Sends every "*.log" file of LogDir\Upload\<account>, one POST per file, and moves each that was
// answered 200 or 202 to LogDir\Archive\<account>. A 401 deletes the credential file. Returns when
// every file has been handled or an exception ended the account; never throws. Counts in `run`.
// kSucceeded whatever became of the files, kFailed when the HTTP layer failed, kRunMustEnd for any
// other exception. The requests leave through `transport`.
[[nodiscard]] int UploadOneUser(
    UploadRun& run, const std::wstring& account, const UploadAuthData& credentials,
    const CorvidSocket::Transport& transport = CorvidSocket::LibraryTransport());

}  // namespace kyd
