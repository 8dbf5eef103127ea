// The program's encoding law.
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

// The separator of folder names in a path.
#ifdef _WIN32
inline constexpr wchar_t kPathSeparator = L'\\';
#else
inline constexpr wchar_t kPathSeparator = L'/';
#endif

// Folder, separator, name. Nothing is normalised.
[[nodiscard]] inline std::wstring JoinPath(std::wstring_view folder, std::wstring_view name) {
  std::wstring path;
  path.reserve(folder.size() + 1 + name.size());
  ((path += folder) += kPathSeparator) += name;
  return path;
}

// The folder of a full path; empty for an empty one.
[[nodiscard]] inline std::wstring FolderOf(const std::wstring& path) {
  return path.substr(0, path.empty() ? 0 : path.rfind(kPathSeparator));
}

// Wide text of UTF-8. Every invalid byte sequence becomes U+FFFD (MultiByteToWideChar, code page
// 65001, RFC 3629).
[[nodiscard]] std::wstring FromUtf8(std::string_view utf8);

// UTF-8 of wide text. An unpaired surrogate or a value above U+10FFFF becomes U+FFFD.
[[nodiscard]] std::string ToUtf8(std::wstring_view text);

// Wide text of UTF-16 little-endian bytes. A last odd byte is ignored; an unpaired surrogate stays
// what it is.
[[nodiscard]] std::wstring FromUtf16Le(const std::uint8_t* bytes, std::size_t size);

// UTF-16 little-endian bytes of wide text, without a mark. An unpaired surrogate stays what it is.
[[nodiscard]] std::vector<std::uint8_t> ToUtf16Le(std::wstring_view text);

// Text as the platform's interfaces and the REST library take it: unchanged on Windows, ToUtf8 on
// Linux.
[[nodiscard]] NativeString ToNative(std::wstring_view text);

// The reverse of ToNative.
[[nodiscard]] std::wstring FromNative(const NativeString& text);

// A path as the platform takes it. Lossless on both platforms: on Linux a byte that is not part of
// valid UTF-8 is U+DC80..U+DCFF in the wide text, so that no file is skipped or renamed because of
// its name.
[[nodiscard]] NativeString ToNativePath(std::wstring_view path);

// The reverse of ToNativePath.
[[nodiscard]] std::wstring FromNativePath(const NativeString& path);

// True when two names are the same without regard to case (ordinal, as the registry and the file
// search compare names).
[[nodiscard]] bool EqualsIgnoringCase(std::wstring_view left, std::wstring_view right);

}  // namespace platform
