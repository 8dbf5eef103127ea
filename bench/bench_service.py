"""The server of the measurements: nginx, as cheap as it can be made, TLS 1.2."""

import time

from service.nginx_service import Nginx, framed

_WAIT = 0.05  # seconds
_WAITS = 100


_HTTP = """
  log_format requests '$status';
  # The body is read to its end and dropped, however long that takes.
  lingering_time 600s;
  lingering_timeout 60s;"""
_SERVER = """
    ssl_protocols TLSv1.2;
    access_log {folder}/requests.txt requests;
    location = {path} {{ return {status}; }}"""


class Service(Nginx):
    """Keeps the sessions of TLS as they are, so that it decodes a client's certificate but once."""

    configuration = framed(
        _HTTP, _SERVER, sessions="    ssl_session_cache builtin;\n    ssl_session_tickets off;"
    )

    def count(self, expected=0):
        """Requests answered with 200 so far.

        A request is counted when its connection has ended, which may be after its client has;
        the expected ones are waited for.
        """
        for _ in range(_WAITS):
            good = (self.folder / "requests.txt").read_text().split("\n").count("200")
            if good >= expected:
                break
            time.sleep(_WAIT)
        return good


class TicketService(Service):
    """Gives its clients the sessions as tickets, as nginx does unless told otherwise."""

    configuration = framed(_HTTP, _SERVER)
