// Reads and formats the key file.
#include "companion/corvid/key_file.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "companion/corvid/aead.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/text.h"

namespace companion {
namespace {

constexpr std::size_t kDigits = kKeySize * 2;
constexpr std::string_view kHexDigits = "0123456789abcdef";

// The value of a hexadecimal digit, or -1.
int HexValue(char digit) {
  if (digit >= 'A' && digit <= 'F') {
    return digit - 'A' + 10;
  }
  const std::size_t value = kHexDigits.find(digit);
  return value == std::string_view::npos ? -1 : static_cast<int>(value);
}

}  // namespace

std::wstring KeyFileIn(const std::wstring& folder) {
  return platform::JoinPath(folder, L"Corvid.key");
}

KeyFileState ReadKeyFile(const std::wstring& path, SecretBytes* key) {
  platform::File file = platform::File::OpenUnobtrusive(path);
  if (!file.IsOpen()) {
    return platform::LastError() == platform::kErrorFileNotFound ? KeyFileState::kAbsent
                                                                 : KeyFileState::kUnusable;
  }
  // One byte more than the longest form, to detect longer files.
  SecretVector<char> text(kDigits + 3);
  const std::optional<std::size_t> size = file.Read(text.data(), text.size());
  if (!size) {
    return KeyFileState::kUnusable;
  }
  const std::string_view contents(text.data(), *size);
  if (contents.size() < kDigits) {
    return KeyFileState::kUnusable;
  }
  const std::string_view line_end = contents.substr(kDigits);
  if (!line_end.empty() && line_end != "\n" && line_end != "\r\n") {
    return KeyFileState::kUnusable;
  }
  SecretBytes bytes(kKeySize);
  for (std::size_t i = 0; i < kKeySize; ++i) {
    const int high = HexValue(contents[i * 2]);
    const int low = HexValue(contents[i * 2 + 1]);
    if (high < 0 || low < 0) {
      return KeyFileState::kUnusable;
    }
    bytes[i] = static_cast<std::uint8_t>(high * 16 + low);
  }
  *key = std::move(bytes);
  return KeyFileState::kRead;
}

SecretBytes KeyFileContents(const SecretBytes& key) {
  SecretBytes contents;
  contents.reserve(key.size() * 2 + 1);
  for (const std::uint8_t byte : key) {
    contents.push_back(static_cast<std::uint8_t>(kHexDigits[byte >> 4U]));
    contents.push_back(static_cast<std::uint8_t>(kHexDigits[byte & 0x0FU]));
  }
  contents.push_back('\n');
  return contents;
}

}  // namespace companion
