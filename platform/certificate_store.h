// Client certificates: the store that holds one and the context that is handed to TLS.
#pragma once

#include "platform/unique_handle.h"

namespace platform {

// HCERTSTORE on Windows (CertCloseStore with flags 0).
struct CertificateStoreCloser {
  using Value = void*;
  static constexpr Value kInvalid = nullptr;
  static void Close(Value store) noexcept;
};
using CertificateStore = UniqueHandle<CertificateStoreCloser>;

// PCCERT_CONTEXT on Windows (CertFreeCertificateContext); on Linux a certificate with its private
// key.
struct CertificateContextCloser {
  using Value = const void*;
  static constexpr Value kInvalid = nullptr;
  static void Close(Value context) noexcept;
};
using CertificateContext = UniqueHandle<CertificateContextCloser>;

}  // namespace platform
