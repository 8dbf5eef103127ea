// Text between code points, UTF-8 and UTF-16.
#include "platform/text.h"

#include <utf8.h>

#include <algorithm>
#include <clocale>
#include <cwctype>
#include <iterator>

#include "platform/case_fold_posix.h"

namespace platform {
namespace {

constexpr wchar_t kReplacement = 0xFFFD;
// A byte 0x80..0xFF of a file name that is not UTF-8 is this plus its value.
constexpr wchar_t kByteBase = 0xDC00;

constexpr bool IsHighSurrogate(wchar_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}

constexpr bool IsLowSurrogate(wchar_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

constexpr bool IsEscapedByte(wchar_t unit) {
  return unit >= kByteBase + 0x80 && unit <= kByteBase + 0xFF;
}

constexpr wchar_t Combined(wchar_t high, wchar_t low) {
  return 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
}

// Joins the halves of surrogate pairs, and makes what is no character U+FFFD.
std::wstring Sanitized(std::wstring_view text) {
  std::wstring characters;
  characters.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const wchar_t unit = text[i];
    if (IsHighSurrogate(unit) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      characters += Combined(unit, text[++i]);
    } else if (IsHighSurrogate(unit) || IsLowSurrogate(unit) || unit < 0 || unit > 0x10FFFF) {
      characters += kReplacement;
    } else {
      characters += unit;
    }
  }
  return characters;
}

void AppendUtf8(std::wstring_view text, std::string& utf8) {
  const std::wstring characters = Sanitized(text);
  utf8.reserve(utf8.size() + characters.size());
  utf8::utf32to8(characters.begin(), characters.end(), std::back_inserter(utf8));
}

void AppendUnit(unsigned unit, std::vector<std::uint8_t>& bytes) {
  bytes.push_back(static_cast<std::uint8_t>(unit));
  bytes.push_back(static_cast<std::uint8_t>(unit >> 8));
}

}  // namespace

std::wstring FromUtf8(std::string_view utf8) {
  std::wstring text;
  text.reserve(utf8.size());
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
    // A character that was already joined is above all surrogates, so it is never joined again.
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
  native.reserve(path.size());
  while (!path.empty()) {
    const auto escaped = std::find_if(path.begin(), path.end(), IsEscapedByte);
    const auto plain = static_cast<std::size_t>(escaped - path.begin());
    AppendUtf8(path.substr(0, plain), native);
    path.remove_prefix(plain);
    for (; !path.empty() && IsEscapedByte(path.front()); path.remove_prefix(1)) {
      native += static_cast<char>(path.front() - kByteBase);
    }
  }
  return native;
}

std::wstring FromNativePath(const NativeString& path) {
  std::wstring text;
  text.reserve(path.size());
  for (auto rest = path.begin(); rest != path.end();) {
    const auto invalid = utf8::find_invalid(rest, path.end());
    utf8::utf8to32(rest, invalid, std::back_inserter(text));
    rest = invalid;
    if (rest != path.end()) {
      // Byte by byte: what follows may be the start of a character.
      text += static_cast<wchar_t>(kByteBase + static_cast<unsigned char>(*rest));
      ++rest;
    }
  }
  return text;
}

wchar_t FoldCase(wchar_t character) noexcept {
  if (character >= 0 && character < 0x80) {
    return character >= L'a' && character <= L'z' ? character - (L'a' - L'A') : character;
  }
  // Always there with glibc 2.35 and newer; without it only ASCII letters fold. Kept for good:
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
