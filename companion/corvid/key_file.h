// Corvid.key: the key of the credential files, in a file beside the library and never in the code.
//
// The file holds 32 random bytes as 64 hexadecimal digits and a line feed. Whoever may read it can
// open every credential file; it is protected by its own mode and by the folder it lies in.
#pragma once

#include <filesystem>

#include "companion/corvid/secret.h"

namespace companion {

constexpr const char* kKeyFileName = "Corvid.key";

enum class KeyFileState {
  kRead,
  kAbsent,
  kUnusable,  ///< not a regular file, not readable, or other contents than a key
};

/// Reads the key file. `key` is assigned on kRead only. Digits of either case are read, and the
/// line may end in LF, in CR LF or with the file.
[[nodiscard]] KeyFileState ReadKeyFile(const std::filesystem::path& file, SecretBytes* key);

/// What a key file with this key contains.
[[nodiscard]] SecretBytes KeyFileContents(const SecretBytes& key);

}  // namespace companion
