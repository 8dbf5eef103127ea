// Certificates with keys, created for a test.
#pragma once

#include <openssl/evp.h>

#include <string>

#include "platform/certificate_store.h"
#include "tests/unit/support/temp_folder.h"

namespace kyd_test {

// Returns a self-signed certificate followed by its key, as PEM. Takes ownership of the key.
[[nodiscard]] std::string SelfSignedPem(EVP_PKEY* key);

// A user whose store holds this one file.
class UserWithCertificate {
 public:
  explicit UserWithCertificate(const std::string& pem);

  // Null if the file contains no certificate.
  [[nodiscard]] const void* Context() const noexcept { return context_.Get(); }

  // The user's home folder.
  [[nodiscard]] const TempFolder& Home() const noexcept { return home_; }

 private:
  TempFolder home_;
  platform::CertificateStore store_;
  platform::CertificateContext context_;
};

}  // namespace kyd_test
