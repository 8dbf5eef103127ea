// The registry export file: "Windows Registry Editor Version 5.00".
//
// UTF-8 with or without a byte-order mark, or UTF-16 little-endian with one; lines end in LF or
// CR LF:
//
//   [HKEY_LOCAL_MACHINE\SOFTWARE\Maker]   creates a key and its parents; its values follow
//   [-HKEY_LOCAL_MACHINE\SOFTWARE\Maker]  removes a key with everything below it
//   "name"="text"                         REG_SZ; \\ and \" stand for \ and "
//   "name"=dword:0000000a                 REG_DWORD, up to 8 hexadecimal digits
//   "name"=hex:01,02                      REG_BINARY on one line (hex(3): is the same)
//   "name"=hex(2):...                     other types, and bytes on several lines: REG_BINARY here,
//                                         without data
//   "name"=-                              removes a value
//   @=...                                 the key's unnamed value
//   ; comment                             on a line of its own or after any of the above
//
// An unreadable line is ignored; values below an unreadable key line belong to no key. Later lines
// win. Keys and names compare without regard to case.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/registry.h"

namespace platform {

struct CaseInsensitiveLess {
  bool operator()(const std::wstring& left, const std::wstring& right) const noexcept;
};

// A key's values by name, text as UTF-16LE with a terminator.
using RegistryValues = std::map<std::wstring, RegistryValue, CaseInsensitiveLess>;

// The values of one key under HKEY_LOCAL_MACHINE; std::nullopt if the text has no such key. Throws
// std::bad_alloc only.
[[nodiscard]] std::optional<RegistryValues> ReadRegistryText(std::string_view text,
                                                             std::wstring_view key);

}  // namespace platform
