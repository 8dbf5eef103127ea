"""The server for the measurements: nginx with as little overhead as possible, TLS 1.2."""

import time

from service.nginx_service import Nginx, framed

_WAIT = 0.05  # seconds
_WAITS = 100


_HTTP = """
  log_format requests '$status';
  # Read and discard the whole body, however long that takes.
  lingering_time 600s;
  lingering_timeout 60s;"""
_SERVER = """
    ssl_protocols TLSv1.2;
    access_log {folder}/requests.txt requests;
    location = {path} {{ return {status}; }}"""


class Service(Nginx):
    """Caches TLS sessions as objects, so that a client's certificate is decoded only once."""

    configuration = framed(
        _HTTP, _SERVER, sessions="    ssl_session_cache builtin;\n    ssl_session_tickets off;"
    )

    def count(self, expected=0):
        """Returns the number of requests answered with 200 so far; waits for the expected ones.

        nginx logs a request when its connection has closed, possibly after the client has exited.
        """
        for _ in range(_WAITS):
            good = (self.folder / "requests.txt").read_text().split("\n").count("200")
            if good >= expected:
                break
            time.sleep(_WAIT)
        return good


class TicketService(Service):
    """Stores TLS sessions in tickets, which is nginx's default."""

    configuration = framed(_HTTP, _SERVER)
