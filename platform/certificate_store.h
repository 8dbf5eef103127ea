// Client certificates: the store that holds one, and the context that is passed to TLS.
//
// Windows: the system's certificate stores (crypt32). Linux: PEM files, each with a certificate and
// its unencrypted private key, in $HOME/.config/keyward/certs/MY ("user") and
// /etc/keyward/certs/MY ("comp").
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/unique_handle.h"

namespace platform {

// The values of LastError after failures (winerror.h).
inline constexpr unsigned kErrorCertificateNotFound = 0x80092004;  // CRYPT_E_NOT_FOUND
inline constexpr unsigned kErrorBadEncoding = 0x80092002;          // CRYPT_E_BAD_ENCODE
inline constexpr unsigned kErrorInvalidPassword = 86;              // ERROR_INVALID_PASSWORD

// HCERTSTORE (CertCloseStore with flags 0).
struct CertificateStoreCloser {
  using Value = void*;
  static constexpr std::nullptr_t kInvalid = nullptr;
  static void Close(Value store) noexcept;
};
using CertificateStore = UniqueHandle<CertificateStoreCloser>;

// PCCERT_CONTEXT (CertFreeCertificateContext); on Linux a CertificateWithKey.
struct CertificateContextCloser {
  using Value = const void*;
  static constexpr Value kInvalid = nullptr;
  static void Close(Value context) noexcept;
};
using CertificateContext = UniqueHandle<CertificateContextCloser>;

// Selects whose "MY" store is opened.
enum class CertificateScope { kCurrentUser, kLocalMachine };

// Opens a "MY" store for reading (CertOpenStore, CERT_STORE_PROV_SYSTEM_W). Invalid on failure
// (LastError).
[[nodiscard]] CertificateStore OpenPersonalStore(CertificateScope scope);

// Returns the certificate with this SHA-1 thumbprint (CertFindCertificateInStore,
// CERT_FIND_SHA1_HASH). Invalid if there is none (LastError).
[[nodiscard]] CertificateContext FindByThumbprint(const CertificateStore& store,
                                                  const std::vector<std::uint8_t>& thumbprint);

// Returns the first certificate of the store (CERT_FIND_ANY). Invalid if it is empty (LastError).
[[nodiscard]] CertificateContext FindFirstCertificate(const CertificateStore& store);

// Whether the bytes look like PKCS #12 (PFXIsPFXBlob, RFC 7292).
[[nodiscard]] bool IsPfx(const std::vector<std::uint8_t>& bytes);

// Returns a store with the contents of a PKCS #12 blob without a password (PFXImportCertStore,
// CRYPT_EXPORTABLE | CRYPT_USER_KEYSET). Invalid on failure (LastError).
[[nodiscard]] CertificateStore ImportPfx(const std::vector<std::uint8_t>& bytes);

}  // namespace platform
