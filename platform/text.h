// The program's text encodings.
//
// Text is wide above the seam: UTF-16 on Windows, code points on Linux. Narrow text is UTF-8. It is
// converted here and nowhere else: for the narrow entry of the diagnostic log, for the REST library
// (whose strings are wide on Windows and UTF-8 on Linux) and for Linux file names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// The string type of the platform's own interfaces and of the REST library there.
#ifdef _WIN32
using NativeString = std::wstring;
#else
using NativeString = std::string;
#endif

// The path separator.
#ifdef _WIN32
inline constexpr wchar_t kPathSeparator = L'\\';
#else
inline constexpr wchar_t kPathSeparator = L'/';
#endif

// Joins the folder and the names with separators. Nothing is normalised. Allocates once, because
// there are paths for every account and every file.
template <class... Names>
[[nodiscard]] std::wstring JoinPath(std::wstring_view folder, const Names&... names) {
  std::wstring path;
  path.reserve(folder.size() + (0 + ... + (1 + std::wstring_view(names).size())));
  path += folder;
  ((path += kPathSeparator, path += names), ...);
  return path;
}

// Returns a path up to and including its last separator; empty if it has none.
[[nodiscard]] inline std::wstring FolderPrefixOf(const std::wstring& path) {
  return path.substr(0, path.rfind(kPathSeparator) + 1);  // npos + 1 is 0
}

// Returns the folder of a full path; empty for an empty path.
[[nodiscard]] inline std::wstring FolderOf(const std::wstring& path) {
  return path.substr(0, path.empty() ? 0 : path.rfind(kPathSeparator));
}

// The halves of a surrogate pair. Where a wide string holds code points, pairs do not occur, but
// single halves may.
[[nodiscard]] constexpr bool IsHighSurrogate(wchar_t unit) noexcept {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
[[nodiscard]] constexpr bool IsLowSurrogate(wchar_t unit) noexcept {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

// Converts UTF-8 to wide text. Every invalid byte sequence becomes U+FFFD (MultiByteToWideChar,
// code page 65001, RFC 3629).
[[nodiscard]] std::wstring FromUtf8(std::string_view utf8);

// Converts wide text to UTF-8. An unpaired surrogate or a value above U+10FFFF becomes U+FFFD.
[[nodiscard]] std::string ToUtf8(std::wstring_view text);

// Converts UTF-16 little-endian bytes to wide text. A trailing odd byte is ignored; an unpaired
// surrogate is kept.
[[nodiscard]] std::wstring FromUtf16Le(const std::uint8_t* bytes, std::size_t size);

// Converts wide text to UTF-16 little-endian bytes, without a byte-order mark. An unpaired
// surrogate is kept.
[[nodiscard]] std::vector<std::uint8_t> ToUtf16Le(std::wstring_view text);

// Converts text for the platform's interfaces and the REST library: unchanged on Windows, ToUtf8 on
// Linux.
[[nodiscard]] NativeString ToNative(std::wstring_view text);

// The reverse of ToNative.
[[nodiscard]] std::wstring FromNative(const NativeString& text);

// Converts a path for the platform. Lossless on both platforms: on Linux a byte that is not part of
// valid UTF-8 is U+DC80..U+DCFF in the wide text, so that no file is skipped or renamed because of
// its name.
[[nodiscard]] NativeString ToNativePath(std::wstring_view path);

// The reverse of ToNativePath.
[[nodiscard]] std::wstring FromNativePath(const NativeString& path);

// Whether two names are equal ignoring case (ordinal, as the registry and the file search compare
// names).
[[nodiscard]] bool EqualsIgnoringCase(std::wstring_view left, std::wstring_view right);

[[nodiscard]] inline bool EndsWithIgnoringCase(std::wstring_view name, std::wstring_view ending) {
  return name.size() >= ending.size() &&
         EqualsIgnoringCase(name.substr(name.size() - ending.size()), ending);
}

#ifndef _WIN32
// Returns the upper-case form of one character, independent of the locale. Only ASCII letters fold
// to ASCII letters.
[[nodiscard]] wchar_t FoldCase(wchar_t character) noexcept;
#endif

}  // namespace platform
