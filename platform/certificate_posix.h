// What a certificate context is on Linux.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace platform {

// A certificate, its private key and the authorities that came with it. Lent as a certificate
// context.
struct CertificateWithKey {
  X509* certificate = nullptr;
  EVP_PKEY* key = nullptr;
};

}  // namespace platform
