"""Serves a certificate revocation list over HTTP on a loopback port."""

import http.server
import threading


class RevocationService:
    """A context manager; `url` is the address for certificates, `source` returns the list's bytes.

    `source` is called for every request. It may be set after the start, because the certificates
    need the address first.
    """

    def __init__(self, source=lambda: b""):
        self.source = source
        self.requests = 0
        service = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):  # noqa: N802 (the base class prescribes the name)
                service.requests += 1
                content = service.source()
                self.send_response(200)
                self.send_header("Content-Type", "application/pkix-crl")
                self.send_header("Content-Length", str(len(content)))
                self.end_headers()
                self.wfile.write(content)

            def log_message(self, *_):
                pass

        self._server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self._thread = threading.Thread(target=self._server.serve_forever, args=(0.05,))

    @property
    def url(self):
        return f"http://127.0.0.1:{self._server.server_port}/authority.crl"

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._server.shutdown()
        self._thread.join()
        self._server.server_close()
