// Which Base64 texts are accepted. The platforms' decoders disagree about unusual ones, so the
// judgement is made here, once, and they see well-formed texts only.
#include "companion/corvid/base64.h"

#include <algorithm>
#include <iterator>
#include <string_view>

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

}  // namespace

bool DecodeBase64(const wchar_t* text, std::size_t count, std::vector<std::uint8_t>* bytes) {
  SecretVector<wchar_t> stripped;
  stripped.reserve(count);
  std::copy_if(text, text + count, std::back_inserter(stripped),
               [](wchar_t character) { return !IsWhiteSpace(character); });
  if (!IsWellFormed(stripped)) {
    return false;
  }
  std::vector<std::uint8_t> decoded(stripped.size() / 4 * 3);
  if (!DecodeStrippedBase64(stripped, &decoded)) {
    Wipe(decoded.data(), decoded.size());
    return false;
  }
  *bytes = std::move(decoded);
  return true;
}

}  // namespace companion
