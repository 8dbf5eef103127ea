// The sealed text: the contents of a credential file, and their conversion to a wide string.
//
// Layout: "KYD1" (4 bytes, authenticated as associated data), nonce (12), ciphertext (any number of
// bytes), tag (16). The plaintext is UTF-16LE without a byte-order mark, so that a file sealed on
// one platform opens on the other.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "companion/corvid/aead.h"

namespace companion {

enum class OpenResult {
  kOpened,
  kNotSealed,     ///< too short, or without the magic
  kNotAuthentic,  ///< made with another key, or modified
  kNotUtf16,      ///< an odd number of bytes
};

/// Seals the bytes with a new random nonce; `plaintext` is not converted. False if the
/// cryptographic library fails.
[[nodiscard]] bool SealText(const SecretBytes& key, const SecretBytes& plaintext,
                            std::vector<std::uint8_t>* sealed);

/// Opens the result of SealText and decodes the plaintext. `text` is assigned only on kOpened.
[[nodiscard]] OpenResult OpenText(const SecretBytes& key, ByteView sealed, std::wstring* text);

}  // namespace companion
