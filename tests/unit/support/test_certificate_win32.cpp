#include "tests/unit/support/test_certificate_win32.h"

#include <windows.h>
// Requires windows.h.
#include <wincrypt.h>

#include <stdexcept>

#include "tests/unit/support/test_certificate.h"

namespace kyd_test {

namespace {

// A certificate without a subject.
constexpr char kCertificate[] =
    "MIIBdjCCAR2gAwIBAgIUKlXTedgb+fnSw4yQZPIs+LmEk0kwCgYIKoZIzj0EAwIw\n"
    "ETEPMA0GA1UEAwwGY2xpZW50MB4XDTI2MTEyMTA1Mzk1NloXDTM2MTExODA1Mzk1\n"
    "NlowETEPMA0GA1UEAwwGY2xpZW50MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAE\n"
    "37pWcfpBcNIG8tUSqbXnUPoCAbksYrmrt6pJunmsECDjOqoaGuVBbrsQBlUIr9mI\n"
    "aIoS7S0EeQr9Jm6y0eImy6NTMFEwHQYDVR0OBBYEFKWdxSrgGKJIGDagsZb0i08g\n"
    "TRx6MB8GA1UdIwQYMBaAFKWdxSrgGKJIGDagsZb0i08gTRx6MA8GA1UdEwEB/wQF\n"
    "MAMBAf8wCgYIKoZIzj0EAwIDRwAwRAIgEKqer1NrTMOVqQMt18D05g6onMu8MrnV\n"
    "Ca//0ZCW1lcCIEaJU3O+aDIvCEa6cHEytE0avjw+VTWNwkesP6JaqWj9\n";

}  // namespace

platform::CertificateContext MakeCertificate() {
  std::vector<BYTE> encoded(sizeof kCertificate);
  auto size = static_cast<DWORD>(encoded.size());
  if (!CryptStringToBinaryA(kCertificate, 0, CRYPT_STRING_BASE64, encoded.data(), &size, nullptr,
                            nullptr)) {
    return {};
  }
  return platform::CertificateContext(
      CertCreateCertificateContext(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, encoded.data(), size));
}

struct TestCertificate::State {
  platform::CertificateStore store{
      CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, L"MY")};
  PCCERT_CONTEXT stored = nullptr;
};

TestCertificate::TestCertificate() : state_(std::make_unique<State>()) {
  const platform::CertificateContext made = MakeCertificate();
  if (!CertAddCertificateContextToStore(state_->store.Get(),
                                        static_cast<PCCERT_CONTEXT>(made.Get()),
                                        CERT_STORE_ADD_REPLACE_EXISTING, &state_->stored)) {
    throw std::runtime_error("CertAddCertificateContextToStore");
  }
  DWORD size = 20;
  thumbprint_.resize(size);
  CertGetCertificateContextProperty(state_->stored, CERT_SHA1_HASH_PROP_ID, thumbprint_.data(),
                                    &size);
  // Closing the store saves it, so that other handles find the certificate.
  CertControlStore(state_->store.Get(), 0, CERT_STORE_CTRL_COMMIT, nullptr);
}

TestCertificate::~TestCertificate() {
  CertDeleteCertificateFromStore(state_->stored);
  CertControlStore(state_->store.Get(), 0, CERT_STORE_CTRL_COMMIT, nullptr);
}

}  // namespace kyd_test
