// What a run knows of its tenant and of the companion library.
#pragma once

#include <string>

#include "companion/corvid/corvid.h"
#include "platform/module.h"

namespace kyd {

// The companion library's three exports.
using DecryptEntry = decltype(&Corvid_CmpCphr_Decrypt);
using Base64DecodeEntry = decltype(&Corvid_Base64_Decode);
using EventLogEntry = decltype(&Corvid_Write_EventLog);

// The base of the run object. The library stays loaded as long as the object lives.
struct CompanionRun {
  std::wstring tenant;     // the server's host name
  std::wstring logDir;     // root of the log folder tree, as passed
  std::wstring userAgent;  // of every request
  platform::Library companionModule;
  DecryptEntry decryptEntry = nullptr;
  Base64DecodeEntry base64DecodeEntry = nullptr;
  EventLogEntry eventLogEntry = nullptr;
};

}  // namespace kyd
