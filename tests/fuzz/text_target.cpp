// Conversion between wide text, UTF-8 and UTF-16.
#include <utf8.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/text.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

namespace kyd_fuzz {

namespace {

bool IsUtf8(std::string_view text) {
  return utf8::find_invalid(text.begin(), text.end()) == text.end();
}

// Wide characters of any value of the type.
std::wstring Unchecked(std::string_view bytes) {
  std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
  if (!text.empty()) {
    std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
  }
  return text;
}

void CheckFromUtf8(std::string_view bytes) {
  const std::wstring text = platform::FromUtf8(bytes);
  const std::string back = platform::ToUtf8(text);
  Require(IsUtf8(back), "the result is UTF-8");
  Require(platform::FromUtf8(back) == text, "text from UTF-8 survives a round trip");
  if (IsUtf8(bytes)) {
    Require(back == bytes, "valid UTF-8 survives a round trip");
  } else {
    Require(text.find(L'\xFFFD') != std::wstring::npos, "invalid UTF-8 becomes U+FFFD");
  }
}

void CheckPath(std::string_view bytes) {
#ifdef _WIN32
  const platform::NativeString native = Unchecked(bytes);
#else
  const platform::NativeString native(bytes);
#endif
  Require(platform::ToNativePath(platform::FromNativePath(native)) == native,
          "any path survives a round trip");
}

void CheckUtf16(std::string_view bytes) {
  const std::wstring text = platform::FromUtf16Le(BytesOf(bytes), bytes.size());
  const std::vector<std::uint8_t> back = platform::ToUtf16Le(text);
  const std::string_view whole = bytes.substr(0, bytes.size() / 2 * 2);
  Require(std::string_view(reinterpret_cast<const char*>(back.data()), back.size()) == whole,
          "UTF-16 survives as it is, but for an odd byte");
  Require(platform::FromUtf16Le(back.data(), back.size()) == text,
          "text from UTF-16 survives a round trip");
}

void CheckWide(const std::wstring& text) {
  const std::string utf8 = platform::ToUtf8(text);
  Require(IsUtf8(utf8), "any wide text becomes UTF-8");
  Require(platform::ToUtf8(platform::FromUtf8(utf8)) == utf8,
          "UTF-8 of wide text survives a round trip");
  static_cast<void>(platform::ToUtf16Le(text));
  static_cast<void>(platform::ToNativePath(text));
  static_cast<void>(platform::ToNative(text));
}

void CheckCase(std::string_view bytes) {
  const std::wstring left = platform::FromUtf8(bytes.substr(0, bytes.size() / 2));
  const std::wstring right = platform::FromUtf8(bytes.substr(bytes.size() / 2));
  Require(platform::EqualsIgnoringCase(left, left), "a name is equal to itself");
  Require(platform::EqualsIgnoringCase(left, right) == platform::EqualsIgnoringCase(right, left),
          "comparison is symmetric");
  Require(left != right || platform::EqualsIgnoringCase(left, right), "identical names are equal");
}

}  // namespace

int FuzzText(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(bytes), size);
  CheckFromUtf8(input);
  CheckPath(input);
  CheckUtf16(input);
  CheckWide(Unchecked(input));
  CheckCase(input);
  return 0;
}

}  // namespace kyd_fuzz
