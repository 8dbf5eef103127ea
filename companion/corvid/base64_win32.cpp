// Base64 through the Windows cryptography interface.
#include <windows.h>
// wincrypt.h needs the types of windows.h.
#include <wincrypt.h>

#include <limits>

#include "companion/corvid/base64.h"

namespace companion {

bool DecodeStrippedBase64(const SecretVector<wchar_t>& text, std::vector<std::uint8_t>* bytes) {
  if (text.size() > std::numeric_limits<DWORD>::max()) {
    return false;
  }
  DWORD size = static_cast<DWORD>(bytes->size());
  if (CryptStringToBinaryW(text.data(), static_cast<DWORD>(text.size()), CRYPT_STRING_BASE64,
                           bytes->data(), &size, nullptr, nullptr) == FALSE) {
    return false;
  }
  bytes->resize(size);
  return true;
}

}  // namespace companion
