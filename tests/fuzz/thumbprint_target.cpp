// Thumbprints as hexadecimal text.
#include <string>
#include <string_view>
#include <vector>

#include "socket/certificate_selection.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

namespace kyd_fuzz {

namespace {

constexpr std::wstring_view kUpperDigits = L"0123456789ABCDEF";
constexpr std::wstring_view kLowerDigits = L"0123456789abcdef";

unsigned ValueOf(wchar_t digit) {
  for (const std::wstring_view digits : {kUpperDigits, kLowerDigits}) {
    if (const std::size_t value = digits.find(digit); value != std::wstring_view::npos) {
      return static_cast<unsigned>(value);
    }
  }
  return 0;
}

std::wstring Written(const std::vector<std::uint8_t>& bytes, std::wstring_view digits) {
  std::wstring text;
  for (const std::uint8_t byte : bytes) {
    text += digits[byte / 16];
    text += digits[byte % 16];
  }
  return text;
}

}  // namespace

int FuzzThumbprint(const std::uint8_t* bytes, std::size_t size) {
  Input input(bytes, size);
  const Kind kind = KindOf(input.Byte());
  const std::wstring text = WideText(kind, input.Rest());
  const std::vector<std::uint8_t> decoded = CorvidSocket::DecodeThumbprint(text);
  Require(decoded.size() == text.size() / 2, "two characters make one byte");
  for (std::size_t i = 0; i < decoded.size(); ++i) {
    Require(decoded[i] == ValueOf(text[2 * i]) * 16 + ValueOf(text[2 * i + 1]),
            "a character that is not a hexadecimal digit counts as 0");
  }
  for (const std::wstring_view digits : {kUpperDigits, kLowerDigits}) {
    Require(CorvidSocket::DecodeThumbprint(Written(decoded, digits)) == decoded,
            "bytes survive a round trip in either case");
  }
  return 0;
}

}  // namespace kyd_fuzz
