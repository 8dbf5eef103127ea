// What the REST library lets its user say about TLS; one implementation per back end.
#pragma once

#include <cpprest/http_client.h>

#include "socket/connection_cache.h"

namespace CorvidSocket {

// Makes every connection offer TLS 1.2 alone and, when `certificate` is not null, present that
// client certificate. Both happen with the request, which fails when the platform refuses: with
// CorvidSocket::Exception "Can not set TLS 1.2 or TLS 1.3" or "Failed to set
// WINHTTP_NO_CLIENT_CERT_CONTEXT" and the error number. `native_request` receives the platform's
// handle of what got the certificate: each request on Windows, on Linux the settings that the
// requests of a cache share, when they are made. It and the certificate must outlive the requests,
// and all requests of one cache use the same certificate. `server` is where they go, an https
// address; whether it is validated has to be set already.
void SetTlsOptions(web::http::client::http_client_config& config, const void* certificate,
                   const web::uri& server, const ConnectionCache& connections,
                   void*& native_request);

}  // namespace CorvidSocket
