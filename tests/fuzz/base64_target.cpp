// Base64 decoding of the companion library.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "companion/corvid/base64.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

namespace kyd_fuzz {

namespace {

using Bytes = std::vector<std::uint8_t>;

std::wstring Encoded(const Bytes& bytes) {
  static constexpr std::wstring_view kDigits =
      L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::wstring text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t group = 0;
    for (std::size_t j = 0; j < 3; ++j) {
      group = group << 8 | (j < count ? bytes[i + j] : 0U);
    }
    for (std::size_t j = 0; j < 4; ++j) {
      text += j <= count ? kDigits[group >> (18 - 6 * j) & 0x3F] : L'=';
    }
  }
  return text;
}

bool IsBlank(wchar_t character) {
  return character == L' ' || character == L'\t' || character == L'\r' || character == L'\n';
}

}  // namespace

int FuzzBase64(const std::uint8_t* bytes, std::size_t size) {
  Input input(bytes, size);
  const Kind kind = KindOf(input.Byte());
  const std::string_view rest = input.Rest();
  std::wstring text = WideText(kind, rest);
  const Bytes before{1, 2, 3};
  Bytes decoded = before;
  const bool is_good = companion::DecodeBase64(text.data(), text.size(), &decoded);
  if (is_good) {
    text.erase(std::remove_if(text.begin(), text.end(), &IsBlank), text.end());
    Require(Encoded(decoded) == text, "accepted text is the encoding of its bytes");
  } else {
    Require(decoded == before, "refused text changes nothing");
  }
  const Bytes any(rest.begin(), rest.end());
  const std::wstring encoded = Encoded(any);
  decoded = before;
  Require(companion::DecodeBase64(encoded.data(), encoded.size(), &decoded) == !any.empty(),
          "the encoding of any bytes is accepted");
  Require(decoded == (any.empty() ? before : any), "bytes survive a round trip");
  return 0;
}

}  // namespace kyd_fuzz
