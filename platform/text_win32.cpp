// Conversion between UTF-16 and UTF-8, through Windows.
#include "platform/text.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace platform {
namespace {

// The conversions count in int, so long text is converted in pieces.
constexpr std::size_t kPieceSize = std::size_t{1} << 20;
constexpr wchar_t kReplacement = 0xFFFD;

constexpr bool IsTrailByte(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// Returns the size of the next piece, which does not end within a character.
std::size_t PieceOf(std::string_view utf8) {
  if (utf8.size() <= kPieceSize) {
    return utf8.size();
  }
  std::size_t size = kPieceSize;
  while (size > kPieceSize - 3 && IsTrailByte(utf8[size])) {
    --size;
  }
  return size;
}

std::size_t PieceOf(std::wstring_view text) {
  if (text.size() <= kPieceSize) {
    return text.size();
  }
  return IsHighSurrogate(text[kPieceSize - 1]) ? kPieceSize - 1 : kPieceSize;
}

// Done here because versions of Windows differ in how they convert an unpaired surrogate.
void ReplaceUnpairedSurrogates(std::wstring& text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (IsHighSurrogate(text[i]) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      ++i;
    } else if (IsHighSurrogate(text[i]) || IsLowSurrogate(text[i])) {
      text[i] = kReplacement;
    }
  }
}

}  // namespace

std::wstring FromUtf8(std::string_view utf8) {
  std::wstring text;
  while (!utf8.empty()) {
    const std::string_view piece = utf8.substr(0, PieceOf(utf8));
    const int bytes = static_cast<int>(piece.size());
    const int units = MultiByteToWideChar(CP_UTF8, 0, piece.data(), bytes, nullptr, 0);
    const std::size_t end = text.size();
    text.resize(end + static_cast<std::size_t>(std::max(units, 0)));
    MultiByteToWideChar(CP_UTF8, 0, piece.data(), bytes, text.data() + end, units);
    utf8.remove_prefix(piece.size());
  }
  return text;
}

std::string ToUtf8(std::wstring_view text) {
  std::string utf8;
  while (!text.empty()) {
    std::wstring piece(text.substr(0, PieceOf(text)));
    text.remove_prefix(piece.size());
    ReplaceUnpairedSurrogates(piece);
    const int units = static_cast<int>(piece.size());
    const int bytes =
        WideCharToMultiByte(CP_UTF8, 0, piece.data(), units, nullptr, 0, nullptr, nullptr);
    const std::size_t end = utf8.size();
    utf8.resize(end + static_cast<std::size_t>(std::max(bytes, 0)));
    WideCharToMultiByte(CP_UTF8, 0, piece.data(), units, utf8.data() + end, bytes, nullptr,
                        nullptr);
  }
  return utf8;
}

std::wstring FromUtf16Le(const std::uint8_t* bytes, std::size_t size) {
  std::wstring text(size / sizeof(wchar_t), L'\0');
  if (!text.empty()) {
    std::memcpy(text.data(), bytes, text.size() * sizeof(wchar_t));
  }
  return text;
}

std::vector<std::uint8_t> ToUtf16Le(std::wstring_view text) {
  std::vector<std::uint8_t> bytes(text.size() * sizeof(wchar_t));
  if (!bytes.empty()) {
    std::memcpy(bytes.data(), text.data(), bytes.size());
  }
  return bytes;
}

NativeString ToNative(std::wstring_view text) {
  return NativeString(text);
}

std::wstring FromNative(const NativeString& text) {
  return text;
}

NativeString ToNativePath(std::wstring_view path) {
  return NativeString(path);
}

std::wstring FromNativePath(const NativeString& path) {
  return path;
}

bool EqualsIgnoringCase(std::wstring_view left, std::wstring_view right) {
  if (left.size() != right.size() ||
      left.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    return false;
  }
  if (left.empty()) {
    return true;  // An empty view may hold a null pointer, which the call refuses.
  }
  const int size = static_cast<int>(left.size());
  return CompareStringOrdinal(left.data(), size, right.data(), size, /*bIgnoreCase=*/TRUE) ==
         CSTR_EQUAL;
}

}  // namespace platform
