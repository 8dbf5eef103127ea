// Corvid.key: the key of the credential files, in a file beside the library and never in the code.
//
// The file holds 32 random bytes as 64 hexadecimal digits and a line feed. Anyone who can read it
// can open every credential file; its mode and its folder protect it.
#pragma once

#include <string>

#include "companion/corvid/secret.h"

namespace companion {

/// The path of the key file in the folder of the library or the tool.
[[nodiscard]] std::wstring KeyFileIn(const std::wstring& folder);

enum class KeyFileState {
  kRead,
  kAbsent,
  kUnusable,  ///< not a regular file, not readable, or the contents are not a key
};

/// Reads the key file. `key` is assigned on kRead only. Accepts digits of either case; the line may
/// end in LF, in CR LF or with the file.
[[nodiscard]] KeyFileState ReadKeyFile(const std::wstring& path, SecretBytes* key);

/// The contents of a key file with this key.
[[nodiscard]] SecretBytes KeyFileContents(const SecretBytes& key);

}  // namespace companion
