// Base64 (RFC 4648, section 4).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "companion/corvid/secret.h"

namespace companion {

/// Decodes the standard alphabet with its padding; blanks, tabs and line breaks may occur anywhere.
/// Everything else is refused: other characters, missing or misplaced padding, non-zero padding
/// bits, and text that decodes to zero bytes. `bytes` is assigned only if the result is true.
[[nodiscard]] bool DecodeBase64(const wchar_t* text, std::size_t count,
                                std::vector<std::uint8_t>* bytes);

}  // namespace companion
