// The credentials of one account.
#pragma once

#include <initializer_list>
#include <string>

#include "platform/secret_memory.h"

namespace kyd {

struct UploadAuthData {
  std::wstring apikey;              // bearer token
  std::wstring idp_session;         // identity-provider session
  std::wstring cert_base64encoded;  // PKCS #12 in Base64 text, or empty
  std::wstring cert_hash;           // SHA-1 thumbprint in hexadecimal, or empty
  std::wstring cert_store;          // scope of the certificate store, "user" or "comp", or empty
};

// Clears the record and wipes its memory.
inline void Wipe(UploadAuthData& record) noexcept {
  for (std::wstring* const field : {&record.apikey, &record.idp_session, &record.cert_base64encoded,
                                    &record.cert_hash, &record.cert_store}) {
    platform::Wipe(*field);
  }
}

}  // namespace kyd
