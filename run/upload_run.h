// The run object of the process, which is passed to every part of the run.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "companion/corvid/corvid.h"
#include "platform/module.h"
#include "platform/string_table.h"

namespace kyd {

// The results of the steps of a run.
inline constexpr int kSucceeded = 0;
// Already logged, or nothing to do; continue with the next account.
inline constexpr int kFailed = 1;
// Already logged; process no further account.
inline constexpr int kRunMustEnd = -1;

// The companion library's three exports.
using DecryptEntry = decltype(&Corvid_CmpCphr_Decrypt);
using Base64DecodeEntry = decltype(&Corvid_Base64_Decode);
using EventLogEntry = decltype(&Corvid_Write_EventLog);

// An account with failed files.
struct UploadErrInfo {
  std::wstring folder;      // the account's folder name
  std::uint32_t count = 0;  // number of its files that failed in this run
};

// The data of the day's result file, written at the end of the run.
struct UploadResultReport {
  platform::InstanceHandle instance = nullptr;  // holds the text resources
  std::vector<UploadErrInfo> errors;            // in insertion order
};

// Appends a record to the report. If that fails, the failure is logged and the record is lost.
void AddUploadErrInfo(UploadResultReport& report, const std::wstring& folder,
                      std::uint32_t count) noexcept;

struct UploadRun {
  std::wstring tenant;                // the server's host name
  std::wstring logDir;                // root of the log folder tree, as passed
  std::wstring userAgent;             // of every request
  platform::Library companionModule;  // stays loaded for the lifetime of the run
  DecryptEntry decryptEntry = nullptr;
  Base64DecodeEntry base64DecodeEntry = nullptr;
  EventLogEntry eventLogEntry = nullptr;
  std::uint32_t accountCount = 0;    // account folders found, "Total"
  std::uint32_t sendCount = 0;       // accounts uploaded, "Upload target"
  std::uint32_t noSendCount = 0;     // accounts not uploaded, "Not subject to upload"
  std::uint32_t fileOkCount = 0;     // log files sent, "Upload success"
  std::uint32_t fileErrorCount = 0;  // log files that failed, "Upload error"
  platform::InstanceHandle instance = nullptr;
  std::array<wchar_t, 260> workBuffer{};  // part of the object's contract; nothing reads it
  UploadResultReport report;

  // Shared by the connections of all accounts without a client certificate: a
  // CorvidSocket::ConnectionCache.
  std::shared_ptr<void> connections;
};

}  // namespace kyd
