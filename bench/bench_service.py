"""The server of the measurements: nginx, as cheap as it can be made, TLS 1.2."""

from service.nginx_service import Nginx

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

    def count(self):
        """Requests answered with 200 so far, and how many of their connections were resumed."""
        lines = (self.folder / "requests.txt").read_text().split("\n")[:-1]
        good = [line for line in lines if line.startswith("200 ")]
        return len(good), sum(line.endswith(" r") for line in good)
