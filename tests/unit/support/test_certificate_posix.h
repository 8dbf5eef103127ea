// Certificates with keys, made for a test.
#pragma once

#include <openssl/evp.h>

#include <string>

#include "platform/certificate_store.h"
#include "tests/unit/support/temp_folder.h"

namespace kyd_test {

// A certificate signed with its own key, followed by the key, as PEM. Takes the key over.
[[nodiscard]] std::string SelfSignedPem(EVP_PKEY* key);

// A user whose store holds this one file.
class UserWithCertificate {
 public:
  explicit UserWithCertificate(const std::string& pem);

  // Null when the file is no certificate.
  [[nodiscard]] const void* Context() const noexcept { return context_.Get(); }

  // The user's home folder.
  [[nodiscard]] const TempFolder& Home() const noexcept { return home_; }

 private:
  TempFolder home_;
  platform::CertificateStore store_;
  platform::CertificateContext context_;
};

}  // namespace kyd_test
