// The exports of the Corvid library. The program that looks them up and the stand-in that provides
// them share this declaration.
//
// The string and the vector belong to the caller and are resized by the library: both sides must be
// built with the same C++ library and use the same C run-time heap. Each Windows module of this
// project links the C++ library statically and imports the C run-time from the system. Never use a
// module with another C run-time here.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

extern "C" {

/// Opens the contents of a credential file. Returns 0 with the text in `plaintext`, or another
/// value (see CorvidError) with `plaintext` empty. `size` counts bytes; only its low 32 bits may be
/// set. Throws nothing.
std::int32_t Corvid_CmpCphr_Decrypt(const std::uint8_t* data, std::uint64_t size,
                                    std::wstring* plaintext);

/// Decodes Base64 text of `count` characters. Returns 0 with the bytes in `bytes`, or another value
/// with `bytes` unchanged (a vector without storage stays so). Throws nothing.
std::int32_t Corvid_Base64_Decode(const wchar_t* text, std::uint64_t count,
                                  std::vector<std::uint8_t>* bytes);

/// Must exist, but is never called. The stand-in writes nothing; it ignores any arguments, which
/// the calling conventions of x86-64 allow.
std::int32_t Corvid_Write_EventLog();

}  // extern "C"

/// The stand-in's results other than 0, distinct for debugging.
enum CorvidError : std::int32_t {
  kCorvidBadArgument = 1,
  kCorvidNoKey = 2,
  kCorvidBadKey = 3,
  kCorvidNotSealed = 4,
  kCorvidNotAuthentic = 5,
  kCorvidNotUtf16 = 6,
  kCorvidBadBase64 = 7,
  kCorvidUnexpected = 8,
};
