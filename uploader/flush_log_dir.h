// The run over all accounts.
#pragma once

#include <string>

#include "run/upload_run.h"

namespace kyd {

// Uploads account by account, writes the result file and, with `force`, archives the files that are
// still waiting. All exceptions are caught and logged.
void FlushLogDir(UploadRun& run, bool force);

// Moves every waiting log file of every account to the archive.
void SearchUploadDir(const UploadRun& run);

// Moves one account's waiting log files to its archive, with ".bak" appended to their names.
// Always returns 0.
int CleanupUploadDir(const UploadRun& run, const std::wstring& account);

}  // namespace kyd
