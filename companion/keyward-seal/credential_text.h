// From the bytes on standard input to the plaintext of a credential file.
#pragma once

#include <string>

#include "companion/corvid/secret.h"

namespace companion {

/// The encoding of the input.
enum class InputEncoding {
  kUtf8,     ///< with or without a byte-order mark, which is dropped
  kUtf16Le,  ///< taken byte for byte; a mark would become part of the text
};

/// Gives the plaintext, UTF-16LE. With `check_json` the text has to be one JSON document (RFC
/// 8259). False with a sentence in `problem` when the text is not JSON, not UTF-8, or cut in the
/// middle of a UTF-16 unit; the sentence never quotes the text.
[[nodiscard]] bool MakePlaintext(const SecretBytes& input, InputEncoding encoding, bool check_json,
                                 SecretBytes* plaintext, std::string* problem);

}  // namespace companion
