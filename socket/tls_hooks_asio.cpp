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
#include "socket/socket_bio_asio.h"
#include "socket/tls_sessions_asio.h"

namespace CorvidSocket {

namespace {

using SslContext = boost::asio::ssl::context;

[[noreturn]] void ThrowRefusal(const char* message) {
  ERR_clear_error();
  throw Exception(message) << ErrorNumber(platform::kErrorGeneralFailure);
}

// TLS 1.3 stays disabled deliberately, although the message names it.
void SetProtocols(SSL_CTX* context) {
  if (SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION) != 1) {
    ThrowRefusal("Can not set TLS 1.2 or TLS 1.3");
  }
}

// The message names an option of another platform; operators search logs for this text.
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

void SetContext(SSL_CTX* context, const void* certificate, void*& native_request) {
  SetProtocols(context);
  if (certificate != nullptr) {
    SetCertificate(context, platform::CertificateOf(certificate));
    native_request = context;
  }
}

// The authorities that this machine trusts, including SSL_CERT_FILE and SSL_CERT_DIR. Parsing them
// costs far more than a request, so it happens once, for the first server that is validated. Never
// freed: connections may outlive every destructor that could free it.
X509_STORE* TrustedAuthorities() {
  static X509_STORE* const store = [] {
    SslContext context(SslContext::sslv23);
    context.set_default_verify_paths();
    X509_STORE* const trusted = SSL_CTX_get_cert_store(context.native_handle());
    X509_STORE_up_ref(trusted);
    return trusted;
  }();
  return store;
}

// Shared by connections: one for those that validate the server, one for the others.
struct Shared {
  std::shared_ptr<SslContext> context;
  std::shared_ptr<TlsSessions> sessions = std::make_shared<TlsSessions>();
};

std::shared_ptr<SslContext> MakeContext(bool validate, const void* certificate,
                                        void*& native_request) {
  auto context = std::make_shared<SslContext>(SslContext::sslv23);
  context->set_options(SslContext::default_workarounds);
  if (validate) {
    SSL_CTX_set1_cert_store(context->native_handle(), TrustedAuthorities());
  }
  SetContext(context->native_handle(), certificate, native_request);
  return context;
}

// Sharing is this project's addition to the library. A library without it creates everything for
// each connection, which is only slower.
template <class Config, class = void>
class Connections {
 public:
  static ConnectionCache Make() { return nullptr; }
  void Set(Config& /*config*/, const void* /*certificate*/, const web::uri& /*server*/,
           void*& /*native_request*/) {}
};

template <class Config>
class Connections<Config, std::void_t<decltype(Config::make_address_cache())>> {
 public:
  static ConnectionCache Make() { return std::make_shared<Connections>(); }

  void Set(Config& config, const void* certificate, const web::uri& server, void*& native_request) {
    const bool validate = config.validate_certificates();
    Shared& shared = validate ? validating_ : not_validating_;
    if (shared.context == nullptr) {
      shared.context = MakeContext(validate, certificate, native_request);
    }
    config.set_address_cache(addresses_);
    config.set_ssl_context(shared.context);
    config.set_nativehandle_options(
        [sessions = shared.sessions, name = server.authority().to_string()](void* connection) {
          auto& stream = *static_cast<TlsStream*>(connection);
          WriteToSocket(stream);
          TlsSessions::Use(sessions, stream.native_handle(), name);
        });
  }

 private:
  Shared validating_;
  Shared not_validating_;
  const decltype(Config::make_address_cache()) addresses_ = Config::make_address_cache();
};

using LibraryConnections = Connections<web::http::client::http_client_config>;

}  // namespace

ConnectionCache MakeConnectionCache() {
  return LibraryConnections::Make();
}

void SetTlsOptions(web::http::client::http_client_config& config, const void* certificate,
                   const web::uri& server, const ConnectionCache& connections,
                   void*& native_request) {
  if (connections != nullptr) {
    const auto shared = std::static_pointer_cast<LibraryConnections>(connections);
    shared->Set(config, certificate, server, native_request);
  } else {
    config.set_ssl_context_callback([certificate, &native_request](SslContext& context) {
      SetContext(context.native_handle(), certificate, native_request);
    });
  }
}

}  // namespace CorvidSocket
