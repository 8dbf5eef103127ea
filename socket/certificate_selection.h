// Selects the client certificate that an account's credentials name.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "credentials/upload_auth_data.h"
#include "platform/certificate_store.h"
#include "run/upload_run.h"

namespace CorvidSocket {

// Returns the bytes of a thumbprint in hexadecimal text, two characters per byte. A trailing odd
// character is ignored; a character that is not hexadecimal counts as 0.
[[nodiscard]] std::vector<std::uint8_t> DecodeThumbprint(const std::wstring& text);

// The store that holds the client certificate, and the certificate itself; both empty if there is
// none. The context is released first, then the store.
struct ClientCertificate {
  platform::CertificateStore store;
  platform::CertificateContext context;
};

// Selects from `cert_base64encoded`, a PKCS #12 text. Never throws; every failure is logged.
void ParseAuthParam(ClientCertificate& pair, const kyd::UploadAuthData& credentials,
                    const kyd::UploadRun& run) noexcept;

// Selects by `cert_hash` and `cert_store`. Never throws; every failure is logged.
void SelectStoreCert(ClientCertificate& pair, const kyd::UploadAuthData& credentials) noexcept;

}  // namespace CorvidSocket
