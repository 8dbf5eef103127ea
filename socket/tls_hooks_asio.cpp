// TLS settings through the OpenSSL context of the library's Asio back end.
#include "socket/tls_hooks.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <boost/asio/ssl/context.hpp>
#include <memory>
#include <type_traits>
#include <utility>

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

// The cache is this project's addition to the library. One without it makes everything anew for
// each connection: slower, and nothing else.
template <class Config, class = void>
struct LibraryCache {
  static ConnectionCache Make() { return nullptr; }
  static void Set(Config& /*config*/, const ConnectionCache& /*connections*/) {}
};

template <class Config>
struct LibraryCache<Config, std::void_t<decltype(std::declval<Config>().get_connection_cache())>> {
  using Cache = std::decay_t<decltype(*std::declval<Config>().get_connection_cache())>;
  static ConnectionCache Make() { return std::make_shared<Cache>(); }
  static void Set(Config& config, const ConnectionCache& connections) {
    config.set_connection_cache(std::static_pointer_cast<Cache>(connections));
  }
};

}  // namespace

ConnectionCache MakeConnectionCache() {
  return LibraryCache<web::http::client::http_client_config>::Make();
}

void SetTlsOptions(web::http::client::http_client_config& config, const void* certificate,
                   const ConnectionCache& connections, void*& native_request) {
  LibraryCache<web::http::client::http_client_config>::Set(config, connections);
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
