// PKCS #12 data from the credentials.
#include <vector>

#include "platform/certificate_store.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

namespace kyd_fuzz {

int FuzzPfx(const std::uint8_t* bytes, std::size_t size) {
  const std::vector<std::uint8_t> blob(bytes, bytes + size);
  const bool is_pfx = platform::IsPfx(blob);
  const platform::CertificateStore store = platform::ImportPfx(blob);
  Require(is_pfx || !store, "only PKCS #12 data is imported");
  if (store) {
    const platform::CertificateContext first = platform::FindFirstCertificate(store);
    Require(!platform::FindByThumbprint(store, {}), "no certificate has an empty thumbprint");
  }
  return 0;
}

}  // namespace kyd_fuzz
