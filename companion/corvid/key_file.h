// Corvid.key: the key of the credential files, in a file in the library's folder and never in the
// code.
//
// The file holds 32 random bytes as 64 hexadecimal digits and a line feed. Anyone who can read it
// can open every credential file; its mode and its folder protect it.
#pragma once

#include <string>

#include "companion/corvid/secret.h"

namespace companion {

/// Returns the path of the key file in the folder of the library or the tool.
[[nodiscard]] std::wstring KeyFileIn(const std::wstring& folder);

enum class KeyFileState {
  kRead,
  kAbsent,
  kUnusable,  ///< not a regular file, not readable, or the contents are not a key
};

/// Reads the key file. `key` is assigned only on kRead. Accepts digits of either case; the line may
/// end in LF, in CR LF or at the end of the file.
[[nodiscard]] KeyFileState ReadKeyFile(const std::wstring& path, SecretBytes* key);

/// Returns the contents of a key file with this key.
[[nodiscard]] SecretBytes KeyFileContents(const SecretBytes& key);

}  // namespace companion
