// Reads and words the key file.
#include "companion/corvid/key_file.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "companion/common/file_head.h"
#include "companion/corvid/aead.h"

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

KeyFileState ReadKeyFile(const std::filesystem::path& file, SecretBytes* key) {
  SecretVector<char> text(kDigits + 3);  // One byte more than the longest form, to see its end.
  const FileHead head = ReadFileHead(file, text.data(), text.size());
  switch (head.state) {
    case FileHead::State::kRead:
      break;
    case FileHead::State::kAbsent:
      return KeyFileState::kAbsent;
    case FileHead::State::kUnreadable:
      return KeyFileState::kUnusable;
  }
  const std::string_view contents(text.data(), head.size);
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
