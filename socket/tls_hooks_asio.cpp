// TLS settings through the OpenSSL context of the library's Asio back end.
#include "socket/tls_hooks.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <boost/asio/ssl/context.hpp>

#include "platform/certificate_posix.h"
#include "platform/error.h"
#include "socket/exception.h"

namespace CorvidSocket {

namespace {

[[noreturn]] void ThrowRefusal(const char* message) {
  ERR_clear_error();
  throw Exception(message) << ErrorNumber(platform::kErrorGeneralFailure);
}

// TLS 1.3 stays off on purpose, although the message names it.
void SetProtocols(SSL_CTX* context) {
  if (SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION) != 1) {
    ThrowRefusal("Can not set TLS 1.2 or TLS 1.3");
  }
}

// The message names an option of another platform; it is the text that is looked for in logs.
void SetCertificate(SSL_CTX* context, const platform::CertificateWithKey& certificate) {
  bool set = SSL_CTX_use_certificate(context, certificate.certificate.get()) == 1 &&
             SSL_CTX_use_PrivateKey(context, certificate.key.get()) == 1;
  for (const platform::X509Pointer& issuer : certificate.issuers) {
    set = set && SSL_CTX_add1_chain_cert(context, issuer.get()) == 1;
  }
  if (!set) {
    ThrowRefusal("Failed to set WINHTTP_NO_CLIENT_CERT_CONTEXT");
  }
}

}  // namespace

void SetTlsOptions(web::http::client::http_client_config& config, const void* certificate,
                   void*& native_request) {
  config.set_ssl_context_callback(
      [certificate, &native_request](boost::asio::ssl::context& context) {
        SetProtocols(context.native_handle());
        if (certificate != nullptr) {
          SetCertificate(context.native_handle(), platform::CertificateOf(certificate));
          native_request = context.native_handle();
        }
      });
}

}  // namespace CorvidSocket
