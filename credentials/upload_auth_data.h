// The credentials of one account.
#pragma once

#include <string>

namespace kyd {

struct UploadAuthData {
  std::wstring apikey;              // bearer token
  std::wstring idp_session;         // identity-provider session
  std::wstring cert_base64encoded;  // PKCS #12 in Base64 text, or empty
  std::wstring cert_hash;           // SHA-1 thumbprint in hexadecimal, or empty
  std::wstring cert_store;          // scope of the certificate store, "user" or "comp", or empty
};

}  // namespace kyd
