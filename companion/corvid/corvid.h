// The exports of the Corvid library, as this stand-in provides them.
//
// The string and the vector belong to the caller and are grown by the library. That works because
// both sides are built with the same C++ library and, although each Windows module links it
// statically, allocate from the one heap of the C run-time (msvcrt) that all of them import. A
// module with a C run-time of its own must not be put in this place.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

extern "C" {

/// Opens the contents of a credential file. Returns 0 with the text in `plaintext`, or another
/// value (see CorvidError) with `plaintext` empty. `size` counts bytes; only its low 32 bits may be
/// set.
std::int32_t Corvid_CmpCphr_Decrypt(const std::uint8_t* data, std::uint64_t size,
                                    std::wstring* plaintext) noexcept;

/// Decodes Base64 text of `count` characters. Returns 0 with the bytes in `bytes`, or another value
/// with `bytes` untouched, so that a vector without storage stays without.
std::int32_t Corvid_Base64_Decode(const wchar_t* text, std::uint64_t count,
                                  std::vector<std::uint8_t>* bytes) noexcept;

/// Writes nothing. The caller looks for the name and never calls it; arguments of a caller that
/// does are left alone, which the calling conventions of x86-64 allow.
std::int32_t Corvid_Write_EventLog() noexcept;

}  // extern "C"

/// Results other than 0, told apart for somebody who looks at them in a debugger.
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
