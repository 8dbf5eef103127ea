// Converts the bytes of standard input to the plaintext of a credential file.
#pragma once

#include <string>

#include "companion/corvid/secret.h"

namespace companion {

/// The encoding of the input.
enum class InputEncoding {
  kUtf8,     ///< with or without a byte-order mark, which is dropped
  kUtf16Le,  ///< taken byte for byte; a byte-order mark would become part of the text
};

/// Returns the plaintext, UTF-16LE, in `plaintext`. With `check_json` the text must be one JSON
/// document (RFC 8259). False, with a sentence in `problem`, if the text is not JSON, is not UTF-8,
/// or ends within a UTF-16 unit; the sentence never quotes the text.
[[nodiscard]] bool MakePlaintext(const SecretBytes& input, InputEncoding encoding, bool check_json,
                                 SecretBytes* plaintext, std::string* problem);

}  // namespace companion
