// What a run knows of its tenant and of the companion library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/module.h"

namespace kyd {

// "Corvid_CmpCphr_Decrypt": encrypted bytes, their count, the text that receives the plaintext. 0
// on success. Both buffers are the caller's; the library uses the program's string layout and heap.
using DecryptEntry = std::int32_t (*)(const std::uint8_t* data, std::uint64_t size,
                                      std::wstring* plaintext);

// "Corvid_Base64_Decode": text, its count in characters, the vector that receives the bytes. The
// result is not looked at; a vector left without storage means failure.
using Base64DecodeEntry = std::int32_t (*)(const wchar_t* text, std::uint64_t count,
                                           std::vector<std::uint8_t>* bytes);

// "Corvid_Write_EventLog": must be there, is never called.
using EventLogEntry = void (*)();

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
