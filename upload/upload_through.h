// The upload of one account over a transport of the caller's choice.
#pragma once

#include <string>

#include "credentials/upload_auth_data.h"
#include "socket/http_client.h"
#include "upload/account_run.h"

namespace kyd {

// UploadOneUser, whose requests leave through `transport`.
[[nodiscard]] int UploadOneUserThrough(const CorvidSocket::Transport& transport, AccountRun& run,
                                       const std::wstring& account,
                                       const UploadAuthData& credentials);

}  // namespace kyd
