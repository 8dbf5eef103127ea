// Checks and decodes Base64. The platforms' own decoders disagree about unusual texts.
#include "companion/corvid/base64.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

namespace companion {
namespace {

constexpr std::wstring_view kAlphabet =
    L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

bool IsWhiteSpace(wchar_t character) {
  return character == L' ' || character == L'\t' || character == L'\r' || character == L'\n';
}

bool IsWellFormed(const SecretVector<wchar_t>& text) {
  if (text.empty() || text.size() % 4 != 0) {
    return false;
  }
  const std::size_t padding = text.back() != L'=' ? 0 : (text[text.size() - 2] != L'=' ? 1 : 2);
  const auto end = text.end() - static_cast<std::ptrdiff_t>(padding);
  if (!std::all_of(text.begin(), end, [](wchar_t character) {
        return kAlphabet.find(character) != std::wstring_view::npos;
      })) {
    return false;
  }
  // One padding character leaves 2 bits of the last digit unused, two leave 4.
  const std::size_t unused = (std::size_t{1} << (padding * 2)) - 1;
  return (kAlphabet.find(*(end - 1)) & unused) == 0;
}

// The bytes of a well-formed text.
std::vector<std::uint8_t> Decoded(const SecretVector<wchar_t>& text) {
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() / 4 * 3);  // Growing would leave copies on the heap.
  std::uint32_t bits = 0;
  int count = 0;  // bits collected so far
  for (const wchar_t character : text) {
    const std::size_t digit = kAlphabet.find(character);
    if (digit == std::wstring_view::npos) {
      break;  // Padding: only the unused bits of the last digit are left.
    }
    bits = bits << 6U | static_cast<std::uint32_t>(digit);
    count += 6;
    if (count >= 8) {
      count -= 8;
      bytes.push_back(static_cast<std::uint8_t>(bits >> static_cast<unsigned>(count)));
    }
  }
  return bytes;
}

}  // namespace

bool DecodeBase64(const wchar_t* text, std::size_t count, std::vector<std::uint8_t>* bytes) {
  SecretVector<wchar_t> stripped;
  stripped.reserve(count);
  std::copy_if(text, text + count, std::back_inserter(stripped),
               [](wchar_t character) { return !IsWhiteSpace(character); });
  if (!IsWellFormed(stripped)) {
    return false;
  }
  *bytes = Decoded(stripped);
  return true;
}

}  // namespace companion
