// What a run counts and remembers while it goes through the accounts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "credentials/companion_run.h"
#include "platform/string_table.h"
#include "socket/connection_cache.h"

namespace kyd {

// An account with failed files.
struct UploadErrInfo {
  std::wstring folder;      // the account's folder name
  std::uint32_t count = 0;  // its files that failed in this run
};

// What the day's result file is told at the end of the run.
struct UploadResultReport {
  platform::InstanceHandle instance = nullptr;  // holds the text resources
  std::vector<UploadErrInfo> errors;            // in the order of their insertion
};

// The part of the run object that the upload of one account reads and updates.
struct AccountRun : CompanionRun {
  std::uint32_t accountCount = 0;    // account folders met, "Total"
  std::uint32_t sendCount = 0;       // accounts uploaded, "Upload target"
  std::uint32_t noSendCount = 0;     // accounts not uploaded, "Not subject to upload"
  std::uint32_t fileOkCount = 0;     // log files sent, "Upload success"
  std::uint32_t fileErrorCount = 0;  // log files that failed, "Upload error"
  UploadResultReport report;
  CorvidSocket::ConnectionCache connections;  // of the accounts without a client certificate
};

// Appends a record to the report. A failure is logged and loses the record.
void AddUploadErrInfo(UploadResultReport& report, const std::wstring& folder,
                      std::uint32_t count) noexcept;

}  // namespace kyd
