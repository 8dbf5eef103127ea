// Base64 (RFC 4648, section 4) through the platform's decoder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "companion/corvid/secret.h"

namespace companion {

/// Decodes the standard alphabet with its padding; blanks, tabs and line breaks may stand anywhere.
/// Everything else is refused: other characters, missing or misplaced padding, bits behind the last
/// byte that are not zero, and a text without a single byte in it. `bytes` is assigned on true
/// only.
[[nodiscard]] bool DecodeBase64(const wchar_t* text, std::size_t count,
                                std::vector<std::uint8_t>* bytes);

/// The platform's part: decodes a text that has been found well-formed and stripped of white space.
/// `bytes` holds text.size() / 4 * 3 bytes and is cut to what was decoded. Rests on
/// CryptStringToBinaryW, and on EVP_DecodeBlock.
[[nodiscard]] bool DecodeStrippedBase64(const SecretVector<wchar_t>& text,
                                        std::vector<std::uint8_t>* bytes);

}  // namespace companion
