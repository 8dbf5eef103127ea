// TLS settings through WinHTTP's session and request options.

// Included first: the REST library defines the macro C_ASSERT if it does not exist yet, and the
// headers of MinGW-w64 12 do not compile after that.
#include <windows.h>

#include "socket/tls_hooks.h"

#include <wincrypt.h>
#include <winhttp.h>

#include "platform/error.h"
#include "socket/exception.h"

namespace CorvidSocket {

namespace {

// Defined here because not every SDK has all of them.
constexpr DWORD kSecureProtocolsOption = 84;    // WINHTTP_OPTION_SECURE_PROTOCOLS
constexpr DWORD kTls12Only = 0x800;             // WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2
constexpr DWORD kClientCertificateOption = 47;  // WINHTTP_OPTION_CLIENT_CERT_CONTEXT
static_assert(sizeof(CERT_CONTEXT) == 40, "the option takes one CERT_CONTEXT");

// Set on the session. TLS 1.3 stays disabled deliberately, although the message names it.
void SetProtocols(HINTERNET session) {
  DWORD protocols = kTls12Only;
  if (!WinHttpSetOption(session, kSecureProtocolsOption, &protocols, sizeof protocols)) {
    const unsigned error = platform::LastError();
    throw Exception("Can not set TLS 1.2 or TLS 1.3") << ErrorNumber(error);
  }
}

// Set on the request. The message names the option for sending no certificate; operators search
// logs for this text.
void SetCertificate(HINTERNET request, const void* certificate) {
  if (!WinHttpSetOption(request, kClientCertificateOption, const_cast<void*>(certificate),
                        sizeof(CERT_CONTEXT))) {
    const unsigned error = platform::LastError();
    throw Exception("Failed to set WINHTTP_NO_CLIENT_CERT_CONTEXT") << ErrorNumber(error);
  }
}

}  // namespace

ConnectionCache MakeConnectionCache() {
  return nullptr;
}

void SetTlsOptions(web::http::client::http_client_config& config, const void* certificate,
                   const web::uri& /*server*/, const ConnectionCache& /*connections*/,
                   void*& native_request) {
  config.set_nativesessionhandle_options(&SetProtocols);
  if (certificate != nullptr) {
    config.set_nativehandle_options([certificate, &native_request](HINTERNET request) {
      SetCertificate(request, certificate);
      native_request = request;
    });
  }
}

}  // namespace CorvidSocket
