// The three exports: adapt the caller's objects and catch all exceptions.
#include "companion/corvid/corvid.h"

#include <cstddef>
#include <limits>

#include "companion/corvid/base64.h"
#include "companion/corvid/key_file.h"
#include "companion/corvid/sealed_text.h"
#include "platform/module.h"

namespace {

constexpr std::uint64_t kLargestCount = std::numeric_limits<std::uint32_t>::max();

// Reads the key for every call, so that no key stays in memory between them.
std::int32_t Decrypt(companion::ByteView sealed, std::wstring* plaintext) {
  const std::wstring folder = platform::FolderOfModule(reinterpret_cast<const void*>(&Decrypt));
  if (folder.empty()) {
    return kCorvidUnexpected;
  }
  companion::SecretBytes key;
  switch (companion::ReadKeyFile(companion::KeyFileIn(folder), &key)) {
    case companion::KeyFileState::kRead:
      break;
    case companion::KeyFileState::kAbsent:
      return kCorvidNoKey;
    case companion::KeyFileState::kUnusable:
      return kCorvidBadKey;
  }
  switch (companion::OpenText(key, sealed, plaintext)) {
    case companion::OpenResult::kOpened:
      return 0;
    case companion::OpenResult::kNotSealed:
      return kCorvidNotSealed;
    case companion::OpenResult::kNotAuthentic:
      return kCorvidNotAuthentic;
    case companion::OpenResult::kNotUtf16:
      return kCorvidNotUtf16;
  }
  return kCorvidUnexpected;
}

}  // namespace

extern "C" std::int32_t Corvid_CmpCphr_Decrypt(const std::uint8_t* data, std::uint64_t size,
                                               std::wstring* plaintext) {
  if (plaintext == nullptr) {
    return kCorvidBadArgument;
  }
  plaintext->clear();
  if (data == nullptr || size > kLargestCount) {
    return kCorvidBadArgument;
  }
  try {
    return Decrypt({data, static_cast<std::size_t>(size)}, plaintext);
  } catch (...) {
    // Out of memory; nothing has been assigned yet.
    return kCorvidUnexpected;
  }
}

extern "C" std::int32_t Corvid_Base64_Decode(const wchar_t* text, std::uint64_t count,
                                             std::vector<std::uint8_t>* bytes) {
  if (text == nullptr || bytes == nullptr || count > kLargestCount) {
    return kCorvidBadArgument;
  }
  try {
    return companion::DecodeBase64(text, static_cast<std::size_t>(count), bytes) ? 0
                                                                                 : kCorvidBadBase64;
  } catch (...) {
    return kCorvidUnexpected;
  }
}

extern "C" std::int32_t Corvid_Write_EventLog() {
  return 0;
}
