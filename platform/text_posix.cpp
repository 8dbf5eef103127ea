// Conversion between code points, UTF-8 and UTF-16.
#include "platform/text.h"

#include <utf8.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cstddef>
#include <cwctype>
#include <iterator>
#include <type_traits>

namespace platform {
namespace {

constexpr wchar_t kReplacement = 0xFFFD;
// A byte 0x80..0xFF of a file name that is not UTF-8 becomes this plus its value.
constexpr wchar_t kByteBase = 0xDC00;

constexpr bool IsEscapedByte(wchar_t unit) {
  return unit >= kByteBase + 0x80 && unit <= kByteBase + 0xFF;
}

constexpr wchar_t Combined(wchar_t high, wchar_t low) {
  return 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
}

// Returns the next character: surrogate pairs are joined, and anything that is not a character
// becomes U+FFFD.
wchar_t TakeCharacter(std::wstring_view& text) {
  const wchar_t unit = text.front();
  text.remove_prefix(1);
  if (IsHighSurrogate(unit) && !text.empty() && IsLowSurrogate(text.front())) {
    const wchar_t low = text.front();
    text.remove_prefix(1);
    return Combined(unit, low);
  }
  const bool is_character =
      unit >= 0 && unit <= 0x10FFFF && !IsHighSurrogate(unit) && !IsLowSurrogate(unit);
  return is_character ? unit : kReplacement;
}

constexpr std::size_t kAsciiBlock = 16;  // characters

// Converts a block of characters if all are ASCII. The local copies cannot overlap, so that a block
// takes only a few instructions.
template <class From, class To>
bool ConvertAsciiBlock(const From* source, To* target) {
  std::array<From, kAsciiBlock> from;
  std::copy_n(source, kAsciiBlock, from.begin());
  std::make_unsigned_t<From> all = 0;
  std::array<To, kAsciiBlock> to;
  for (std::size_t i = 0; i < kAsciiBlock; ++i) {
    all |= std::make_unsigned_t<From>(from[i]);
    to[i] = static_cast<To>(from[i]);
  }
  if (all >= 0x80) {
    return false;
  }
  std::copy_n(to.begin(), kAsciiBlock, target);
  return true;
}

// Converts the leading ASCII characters, which are the same in both encodings. Names and messages
// rarely contain others, and converting them one by one took a sixth of a run over 100,000
// accounts.
template <class From, class To>
void TakeAscii(std::basic_string_view<From>& from, std::basic_string<To>& to) {
  const std::size_t start = to.size();
  to.resize(start + from.size());
  const From* source = from.data();
  const From* const end = source + from.size();
  To* target = to.data() + start;
  while (static_cast<std::size_t>(end - source) >= kAsciiBlock &&
         ConvertAsciiBlock(source, target)) {
    source += kAsciiBlock;
    target += kAsciiBlock;
  }
  while (source != end && std::make_unsigned_t<From>(*source) < 0x80) {
    *target++ = static_cast<To>(*source++);
  }
  to.resize(static_cast<std::size_t>(target - to.data()));
  from.remove_prefix(static_cast<std::size_t>(source - from.data()));
}

void AppendUtf8(std::wstring_view text, std::string& utf8) {
  TakeAscii(text, utf8);
  while (!text.empty()) {
    utf8::append(static_cast<char32_t>(TakeCharacter(text)), utf8);
  }
}

void AppendUnit(unsigned unit, std::vector<std::uint8_t>& bytes) {
  bytes.push_back(static_cast<std::uint8_t>(unit));
  bytes.push_back(static_cast<std::uint8_t>(unit >> 8));
}

}  // namespace

std::wstring FromUtf8(std::string_view utf8) {
  std::wstring text;
  TakeAscii(utf8, text);
  if (utf8::find_invalid(utf8.begin(), utf8.end()) == utf8.end()) {
    utf8::utf8to32(utf8.begin(), utf8.end(), std::back_inserter(text));
    return text;
  }
  std::string valid;
  valid.reserve(utf8.size());
  utf8::replace_invalid(utf8.begin(), utf8.end(), std::back_inserter(valid));
  utf8::utf8to32(valid.begin(), valid.end(), std::back_inserter(text));
  return text;
}

std::string ToUtf8(std::wstring_view text) {
  std::string utf8;
  AppendUtf8(text, utf8);
  return utf8;
}

std::wstring FromUtf16Le(const std::uint8_t* bytes, std::size_t size) {
  std::wstring text;
  text.reserve(size / 2);
  for (std::size_t i = 0; i + 1 < size; i += 2) {
    const auto unit = static_cast<wchar_t>(bytes[i] | bytes[i + 1] << 8);
    // A character that was joined before is above all surrogates, so it is never joined again.
    if (IsLowSurrogate(unit) && !text.empty() && IsHighSurrogate(text.back())) {
      text.back() = Combined(text.back(), unit);
    } else {
      text += unit;
    }
  }
  return text;
}

std::vector<std::uint8_t> ToUtf16Le(std::wstring_view text) {
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() * 2);
  for (const wchar_t character : text) {
    const bool is_character = character >= 0 && character <= 0x10FFFF;
    const std::uint32_t value = is_character ? static_cast<std::uint32_t>(character) : 0xFFFD;
    if (value < 0x10000) {
      AppendUnit(value, bytes);
    } else {
      AppendUnit(0xD800 + ((value - 0x10000) >> 10), bytes);
      AppendUnit(0xDC00 + ((value - 0x10000) & 0x3FF), bytes);
    }
  }
  return bytes;
}

NativeString ToNative(std::wstring_view text) {
  return ToUtf8(text);
}

std::wstring FromNative(const NativeString& text) {
  return FromUtf8(text);
}

NativeString ToNativePath(std::wstring_view path) {
  std::string native;
  TakeAscii(path, native);
  while (!path.empty()) {
    if (IsEscapedByte(path.front())) {
      native += static_cast<char>(path.front() - kByteBase);
      path.remove_prefix(1);
    } else {
      utf8::append(static_cast<char32_t>(TakeCharacter(path)), native);
    }
  }
  return native;
}

std::wstring FromNativePath(const NativeString& path) {
  std::wstring text;
  std::string_view rest = path;
  TakeAscii(rest, text);
  while (!rest.empty()) {
    const auto invalid = utf8::find_invalid(rest.begin(), rest.end());
    utf8::utf8to32(rest.begin(), invalid, std::back_inserter(text));
    rest.remove_prefix(static_cast<std::size_t>(invalid - rest.begin()));
    if (!rest.empty()) {
      // Byte by byte: the next byte may start a character.
      text += static_cast<wchar_t>(kByteBase + static_cast<unsigned char>(rest.front()));
      rest.remove_prefix(1);
    }
  }
  return text;
}

wchar_t FoldCase(wchar_t character) noexcept {
  if (character >= 0 && character < 0x80) {
    return character >= L'a' && character <= L'z' ? character - (L'a' - L'A') : character;
  }
  // Always available with glibc 2.35 and newer; without it only ASCII letters fold. Never freed:
  // names are compared until the last line is logged.
  static const locale_t utf8_locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  if (utf8_locale == nullptr) {
    return character;
  }
  const auto upper = static_cast<wchar_t>(towupper_l(static_cast<wint_t>(character), utf8_locale));
  return upper < 0x80 ? character : upper;
}

bool EqualsIgnoringCase(std::wstring_view left, std::wstring_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](wchar_t a, wchar_t b) { return FoldCase(a) == FoldCase(b); });
}

}  // namespace platform
