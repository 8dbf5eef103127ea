// Base64 through OpenSSL.
#include <openssl/evp.h>

#include <algorithm>

#include "companion/corvid/base64.h"

namespace companion {

bool DecodeStrippedBase64(const SecretVector<wchar_t>& text, std::vector<std::uint8_t>* bytes) {
  // The decoder wants narrow characters and counts in int, so the text goes through in pieces of
  // whole groups.
  constexpr std::size_t kPiece = 4096;
  SecretVector<unsigned char> narrow(kPiece);
  std::uint8_t* output = bytes->data();
  for (std::size_t done = 0; done < text.size();) {
    const std::size_t piece = std::min(kPiece, text.size() - done);
    std::transform(text.begin() + static_cast<std::ptrdiff_t>(done),
                   text.begin() + static_cast<std::ptrdiff_t>(done + piece), narrow.begin(),
                   [](wchar_t character) { return static_cast<unsigned char>(character); });
    if (EVP_DecodeBlock(output, narrow.data(), static_cast<int>(piece)) !=
        static_cast<int>(piece / 4 * 3)) {
      return false;
    }
    output += piece / 4 * 3;
    done += piece;
  }
  // The decoder gives three bytes for every group and leaves the padding to its caller.
  const auto padding = std::count(text.end() - 2, text.end(), L'=');
  bytes->resize(bytes->size() - static_cast<std::size_t>(padding));
  return true;
}

}  // namespace companion
