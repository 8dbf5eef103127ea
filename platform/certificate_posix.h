// The Linux representation of a certificate context.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <vector>

namespace platform {

struct OpenSslDeleter {
  void operator()(X509* certificate) const noexcept { X509_free(certificate); }
  void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
};
using X509Pointer = std::unique_ptr<X509, OpenSslDeleter>;
using KeyPointer = std::unique_ptr<EVP_PKEY, OpenSslDeleter>;

// A certificate, its private key and the certificates of its issuers that came with it.
struct CertificateWithKey {
  X509Pointer certificate;
  KeyPointer key;
  std::vector<X509Pointer> issuers;
};

// The object behind a certificate context.
[[nodiscard]] const CertificateWithKey& CertificateOf(const void* context) noexcept;

}  // namespace platform
