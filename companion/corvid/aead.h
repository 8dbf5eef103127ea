// The authenticated cipher of the credential files: AES-256-GCM (NIST SP 800-38D) from the
// platform's own cryptography, Windows CNG or OpenSSL 3.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "companion/corvid/secret.h"

namespace companion {

constexpr std::size_t kKeySize = 32;
constexpr std::size_t kNonceSize = 12;
constexpr std::size_t kTagSize = 16;

using Nonce = std::array<std::uint8_t, kNonceSize>;
using Tag = std::array<std::uint8_t, kTagSize>;

/// A view of bytes. `data` may be null if `size` is 0.
struct ByteView {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;
};

/// Fills with bytes from the system's cryptographic generator. False on failure.
[[nodiscard]] bool FillRandom(std::uint8_t* bytes, std::size_t size) noexcept;

/// Encrypts `plaintext` into `ciphertext`, which must have room for the same number of bytes, and
/// computes the tag over `associated` and the ciphertext. False for a key of the wrong size or a
/// failure of the cryptographic library.
[[nodiscard]] bool AeadSeal(const SecretBytes& key, const Nonce& nonce, ByteView associated,
                            ByteView plaintext, std::uint8_t* ciphertext, Tag* tag);

/// Decrypts, the reverse of AeadSeal. Also false if the tag does not match; the contents of
/// `plaintext` are then meaningless. `plaintext` may be null for an empty text, whose tag is still
/// checked.
[[nodiscard]] bool AeadOpen(const SecretBytes& key, const Nonce& nonce, ByteView associated,
                            ByteView ciphertext, const Tag& tag, std::uint8_t* plaintext);

}  // namespace companion
