// Certificate stores through crypt32.
#include <windows.h>

#include <wincrypt.h>

#include <cstddef>

#include "platform/certificate_store.h"

namespace platform {

namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

CRYPT_DATA_BLOB BlobOf(const std::vector<std::uint8_t>& bytes) {
  return {static_cast<DWORD>(bytes.size()), const_cast<BYTE*>(bytes.data())};
}

CertificateContext Find(const CertificateStore& store, DWORD type, const void* parameter) {
  return CertificateContext(CertFindCertificateInStore(store.Get(), kEncoding, /*flags=*/0, type,
                                                       parameter, /*previous=*/nullptr));
}

}  // namespace

void CertificateStoreCloser::Close(Value store) noexcept {
  CertCloseStore(store, /*flags=*/0);
}

void CertificateContextCloser::Close(Value context) noexcept {
  CertFreeCertificateContext(static_cast<PCCERT_CONTEXT>(context));
}

CertificateStore OpenPersonalStore(CertificateScope scope) {
  const DWORD location = scope == CertificateScope::kCurrentUser ? CERT_SYSTEM_STORE_CURRENT_USER
                                                                 : CERT_SYSTEM_STORE_LOCAL_MACHINE;
  return CertificateStore(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, /*encoding=*/0, /*provider=*/0,
                                        location | CERT_STORE_READONLY_FLAG, L"MY"));
}

CertificateContext FindByThumbprint(const CertificateStore& store,
                                    const std::vector<std::uint8_t>& thumbprint) {
  const CRYPT_HASH_BLOB hash = BlobOf(thumbprint);
  return Find(store, CERT_FIND_SHA1_HASH, &hash);
}

CertificateContext FindFirstCertificate(const CertificateStore& store) {
  return Find(store, CERT_FIND_ANY, nullptr);
}

bool IsPfx(const std::vector<std::uint8_t>& bytes) {
  CRYPT_DATA_BLOB blob = BlobOf(bytes);
  return PFXIsPFXBlob(&blob) != FALSE;
}

CertificateStore ImportPfx(const std::vector<std::uint8_t>& bytes) {
  CRYPT_DATA_BLOB blob = BlobOf(bytes);
  return CertificateStore(
      PFXImportCertStore(&blob, /*password=*/nullptr, CRYPT_EXPORTABLE | CRYPT_USER_KEYSET));
}

}  // namespace platform
