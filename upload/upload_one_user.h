// Uploads the waiting log files of one account.
#pragma once

#include <string>

#include "credentials/upload_auth_data.h"
#include "run/upload_run.h"

namespace CorvidSocket {
struct Transport;  // socket/http_client.h
}

namespace kyd {

// Sends every "*.log" file of LogDir\Upload\<account>, one POST per file, and moves each one with
// response 200 or 202 to LogDir\Archive\<account>. A 401 deletes the credential file. Returns when
// every file has been handled or an exception ended the account; never throws. Updates the counters
// of `run`. Returns kSucceeded whatever the results of the files, kFailed if the HTTP layer failed,
// kRunMustEnd for any other exception.
[[nodiscard]] int UploadOneUser(UploadRun& run, const std::wstring& account,
                                const UploadAuthData& credentials);

// The same, but sends the requests through `transport`.
[[nodiscard]] int UploadOneUser(UploadRun& run, const std::wstring& account,
                                const UploadAuthData& credentials,
                                const CorvidSocket::Transport& transport);

}  // namespace kyd
