#include "tests/unit/support/test_certificate_posix.h"

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

#include "platform/certificate_posix.h"
#include "platform/text.h"
#include "tests/unit/support/test_certificate.h"

namespace kyd_test {

namespace {

struct BioDeleter {
  void operator()(BIO* bio) const noexcept { BIO_free(bio); }
};

// The environment changes between the parts of a test, while no other thread runs.
// NOLINTBEGIN(concurrency-mt-unsafe)
class HomeFolder {
 public:
  explicit HomeFolder(const TempFolder& folder) {
    if (const char* const earlier = std::getenv("HOME")) {
      earlier_ = earlier;
    }
    setenv("HOME", platform::ToNativePath(folder.Path()).c_str(), /*overwrite=*/1);
  }
  ~HomeFolder() { setenv("HOME", earlier_.c_str(), /*overwrite=*/1); }
  HomeFolder(const HomeFolder&) = delete;
  HomeFolder& operator=(const HomeFolder&) = delete;

 private:
  std::string earlier_;
};

// NOLINTEND(concurrency-mt-unsafe)

}  // namespace

std::string SelfSignedPem(EVP_PKEY* key) {
  const platform::KeyPointer owned(key);
  const platform::X509Pointer certificate(X509_new());
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -60);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
  X509_set_pubkey(certificate.get(), key);
  X509_sign(certificate.get(), key, EVP_sha256());
  const std::unique_ptr<BIO, BioDeleter> text(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(text.get(), certificate.get());
  PEM_write_bio_PrivateKey(text.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(text.get(), &bytes);
  return {bytes, static_cast<std::size_t>(size)};
}

UserWithCertificate::UserWithCertificate(const std::string& pem) {
  home_.MakeFolder(L".config/keyward/certs/MY");
  WriteFileBytes(home_ / L".config/keyward/certs/MY/one.pem", pem);
  const HomeFolder home(home_);
  store_ = platform::OpenPersonalStore(platform::CertificateScope::kCurrentUser);
  if (store_) {
    context_ = platform::FindFirstCertificate(store_);
  }
}

struct TestCertificate::State {
  UserWithCertificate user{SelfSignedPem(EVP_EC_gen("P-256"))};
  HomeFolder home{user.Home()};
};

TestCertificate::TestCertificate() : state_(std::make_unique<State>()) {
  if (state_->user.Context() == nullptr) {
    throw std::runtime_error("no certificate");
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  X509_digest(platform::CertificateOf(state_->user.Context()).certificate.get(), EVP_sha1(),
              digest.data(), &size);
  thumbprint_.assign(digest.begin(), digest.begin() + size);
}

TestCertificate::~TestCertificate() = default;

}  // namespace kyd_test
