"""The server of the measurements: nginx, as cheap as it can be made, TLS 1.2."""

import time

from service.nginx_service import Nginx

_WAIT = 0.05  # seconds
_WAITS = 100

CONFIGURATION = """
daemon off;
{user}
worker_processes 1;
pid {folder}/nginx.pid;
error_log {folder}/error.log;
events {{ worker_connections 64; }}
http {{
  log_format requests '$status $request_length $ssl_session_reused';
  client_body_temp_path {folder}/bodies;
  proxy_temp_path {folder}/proxy;
  fastcgi_temp_path {folder}/fastcgi;
  uwsgi_temp_path {folder}/uwsgi;
  scgi_temp_path {folder}/scgi;
  client_max_body_size {longest_body};
  # The body is read to its end and dropped, however long that takes.
  lingering_time 600s;
  lingering_timeout 60s;
  server {{
    listen 127.0.0.1:{port} ssl;
    ssl_certificate {folder}/server.pem;
    ssl_certificate_key {folder}/server.pem;
    ssl_protocols TLSv1.2;
    ssl_session_cache shared:sessions:1m;
{client}
    access_log {folder}/requests.txt requests;
    location = {path} {{ return {status}; }}
  }}
}}
"""


class Service(Nginx):
    configuration = CONFIGURATION

    def count(self, expected=0):
        """Requests answered with 200 so far, and how many of their connections were resumed.

        A request is counted when its connection has ended, which may be after its client has;
        the expected ones are waited for.
        """
        for _ in range(_WAITS):
            lines = (self.folder / "requests.txt").read_text().split("\n")[:-1]
            good = [line for line in lines if line.startswith("200 ")]
            if len(good) >= expected:
                break
            time.sleep(_WAIT)
        return len(good), sum(line.endswith(" r") for line in good)
