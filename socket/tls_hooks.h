// The TLS options of a connection and the state that connections share; one implementation per back
// end.
#pragma once

#include <cpprest/http_client.h>

#include <memory>

namespace CorvidSocket {

// Settings, TLS sessions and addresses that the back end can reuse; null shares nothing. Only
// connections with the same client certificate, or all without one, may share a cache. Connections
// that validate the server keep their settings and sessions apart from those that do not. WinHTTP
// reuses these itself, so on Windows the cache is always null.
using ConnectionCache = std::shared_ptr<void>;

// May be null. Throws std::bad_alloc.
[[nodiscard]] ConnectionCache MakeConnectionCache();

// Makes every connection offer only TLS 1.2 and, if `certificate` is not null, present that client
// certificate. Both are applied when the request is sent, which fails if the platform refuses: with
// CorvidSocket::Exception "Can not set TLS 1.2 or TLS 1.3" or "Failed to set
// WINHTTP_NO_CLIENT_CERT_CONTEXT" and the error number. `native_request` receives the platform's
// handle on which the certificate was set: that of each request on Windows; on Linux the settings
// that the requests of a cache share, when they are created. It and the certificate must outlive
// the requests, and all requests of one cache use the same certificate. `server` is their https
// address; `config` must already say whether it is validated.
void SetTlsOptions(web::http::client::http_client_config& config, const void* certificate,
                   const web::uri& server, const ConnectionCache& connections,
                   void*& native_request);

}  // namespace CorvidSocket
