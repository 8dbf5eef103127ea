// The two sources of a client certificate.
#include "socket/certificate_selection.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "debuglog/cdebuglog.h"
#include "platform/error.h"

namespace CorvidSocket {

namespace {

using kyd::Log;

// A character that is not hexadecimal counts as 0; this is not an error.
std::uint8_t Nibble(wchar_t digit) noexcept {
  if (digit >= L'0' && digit <= L'9') {
    return static_cast<std::uint8_t>(digit - L'0');
  }
  if (digit >= L'A' && digit <= L'F') {
    return static_cast<std::uint8_t>(digit - L'A' + 10);
  }
  if (digit >= L'a' && digit <= L'f') {
    return static_cast<std::uint8_t>(digit - L'a' + 10);
  }
  return 0;
}

// Logs a failure together with the platform's error number.
void LogFailure(const char* format) noexcept {
  const unsigned error = platform::LastError();
  Log().WriteLogA(format, error);
}

std::vector<std::uint8_t> DecodeBase64(const std::wstring& text, const kyd::UploadRun& run) {
  std::vector<std::uint8_t> bytes;
  if (run.base64DecodeEntry != nullptr) {
    run.base64DecodeEntry(text.c_str(), text.size(), &bytes);
  }
  return bytes;
}

// Only checks that the text is an importable PFX with at least one certificate: the store and the
// certificate are neither used nor released, and the requests are sent without a client
// certificate. This is intentional. Returns false for a failure, which has been logged.
bool ProvePfx(const kyd::UploadAuthData& credentials, const kyd::UploadRun& run) {
  const std::vector<std::uint8_t> bytes = DecodeBase64(credentials.cert_base64encoded, run);
  if (bytes.data() == nullptr) {
    Log().WriteLogA("<ParseAuthParam> memory error");
    return false;
  }
  if (!platform::IsPfx(bytes)) {
    // The import decides.
    Log().WriteLogA("<ParseAuthParam> PFXIsPFXBlob error");
  }
  platform::CertificateStore store = platform::ImportPfx(bytes);
  if (!store) {
    LogFailure("<ParseAuthParam> PFXImportCertStore error [%d]");
    return false;
  }
  platform::CertificateContext first = platform::FindFirstCertificate(store);
  if (!first) {
    LogFailure("<ParseAuthParam> CertFindCertificateInStore error [%d]");
    return false;
  }
  static_cast<void>(first.Release());
  static_cast<void>(store.Release());
  return true;
}

void Clear(ClientCertificate& pair) noexcept {
  pair.context.Reset();
  pair.store.Reset();
}

void SearchContext(ClientCertificate& pair, const std::vector<std::uint8_t>& thumbprint) {
  pair.context = platform::FindByThumbprint(pair.store, thumbprint);
  if (!pair.context) {
    LogFailure("<SearchContext> CertFindCertificateInStore error [%d]");
    Clear(pair);
  }
}

void SetUserCert(ClientCertificate& pair, const std::vector<std::uint8_t>& thumbprint) {
  pair.store = platform::OpenPersonalStore(platform::CertificateScope::kCurrentUser);
  if (!pair.store) {
    LogFailure("<SetUserCert> CertOpenStore error [%d]");
    return;
  }
  SearchContext(pair, thumbprint);
}

void SetCompCert(ClientCertificate& pair, const std::vector<std::uint8_t>& thumbprint) {
  pair.store = platform::OpenPersonalStore(platform::CertificateScope::kLocalMachine);
  if (!pair.store) {
    LogFailure("<SetCompCert> CertOpenStore error [%d]");
    return;
  }
  SearchContext(pair, thumbprint);
}

}  // namespace

std::vector<std::uint8_t> DecodeThumbprint(const std::wstring& text) {
  std::vector<std::uint8_t> bytes(text.size() / 2);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<std::uint8_t>(Nibble(text[2 * i]) * 16 + Nibble(text[2 * i + 1]));
  }
  return bytes;
}

void ParseAuthParam(ClientCertificate& pair, const kyd::UploadAuthData& credentials,
                    const kyd::UploadRun& run) noexcept {
  bool proven = false;
  try {
    proven = ProvePfx(credentials, run);
  } catch (...) {
    // An exception ends the selection like any other failure.
  }
  if (!proven) {
    Clear(pair);
  }
}

void SelectStoreCert(ClientCertificate& pair, const kyd::UploadAuthData& credentials) noexcept {
  try {
    const std::vector<std::uint8_t> thumbprint = DecodeThumbprint(credentials.cert_hash);
    // The whole text is compared case-sensitively; any other scope selects nothing.
    if (credentials.cert_store == L"user") {
      SetUserCert(pair, thumbprint);
    } else if (credentials.cert_store == L"comp") {
      SetCompCert(pair, thumbprint);
    }
  } catch (...) {
    Clear(pair);
  }
}

}  // namespace CorvidSocket
