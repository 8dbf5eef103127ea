"""Debian's nginx as the tenant's server: a real web server with its own configuration."""

import json
import os
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

from .log_service import SERVICE_PATH

_FRAME = """
daemon off;
{user}
worker_processes 1;
pid {folder}/nginx.pid;
error_log {folder}/error.log;
events {{ worker_connections 64; }}
http {{
  client_body_temp_path {folder}/bodies;
  proxy_temp_path {folder}/proxy;
  fastcgi_temp_path {folder}/fastcgi;
  uwsgi_temp_path {folder}/uwsgi;
  scgi_temp_path {folder}/scgi;
  client_max_body_size {longest_body};
%(http)s
  server {{
    listen 127.0.0.1:{port} ssl;
    server_name localhost;
    ssl_certificate {folder}/server.pem;
    ssl_certificate_key {folder}/server.pem;
%(sessions)s
{client}
%(server)s
  }}
}}
"""


def framed(http, server, sessions="    ssl_session_cache shared:sessions:1m;"):
    """Returns the text for `configuration`, given the contents of its http and server blocks."""
    return _FRAME % {"http": http, "server": server, "sessions": sessions}


def find_nginx():
    """Returns the path of nginx, or None; it is often outside of an ordinary user's PATH."""
    return shutil.which("nginx") or shutil.which("nginx", path="/usr/sbin:/usr/local/sbin")


class Nginx:
    """A context manager. With `client_authority` (PEM), client certificates are required.

    Bodies longer than `longest_body` bytes are refused before they are read; 0 means unlimited.
    Derived classes may replace `configuration`.
    """

    configuration = framed(
        http="""
  log_format requests escape=json
    '{{"method":"$request_method","path":"$request_uri","status":$status,'
    '"protocol":"$ssl_protocol","host":"$http_host","user_agent":"$http_user_agent",'
    '"connection":$connection,"resumed":"$ssl_session_reused",'
    '"client":"$ssl_client_s_dn","verify":"$ssl_client_verify","body_file":"$request_body_file"}}';
  server {{
    listen unix:{folder}/inner.sock;
    access_log off;
    location / {{ return {status}; }}
  }}""",
        server="""
    ssl_protocols TLSv1.2 TLSv1.3;
    access_log {folder}/requests.json requests;
    location = {path} {{
      client_body_in_file_only on;
      proxy_pass http://unix:{folder}/inner.sock;
    }}""",
    )

    def __init__(self, folder, identity, *, status=200, client_authority=None, longest_body=0):
        # nginx resolves relative paths against its compiled-in prefix.
        self.folder = Path(folder).resolve()
        self.folder.mkdir(parents=True, exist_ok=True)
        (self.folder / "server.pem").write_bytes(identity.pem)
        client = ""
        if client_authority:
            (self.folder / "clients.pem").write_bytes(client_authority)
            client = (
                f"    ssl_client_certificate {self.folder}/clients.pem;\n"
                "    ssl_verify_client on;"
            )
        self.port = _free_port()
        self._process = None
        (self.folder / "nginx.conf").write_text(
            self.configuration.format(
                folder=self.folder,
                port=self.port,
                client=client,
                path=SERVICE_PATH,
                status=status,
                longest_body=longest_body,
                # As root, nginx would switch users and write bodies that the tests cannot read.
                user="user root;" if os.geteuid() == 0 else "",
            )
        )

    @property
    def tenant(self):
        return f"localhost:{self.port}"

    def __enter__(self):
        self._process = subprocess.Popen(
            [
                find_nginx(),
                *("-p", str(self.folder)),
                *("-e", str(self.folder / "error.log")),
                *("-c", str(self.folder / "nginx.conf")),
            ],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=(self.folder / "start.log").open("wb"),
        )
        try:
            self._wait_until_open()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        if self._process.poll() is None:
            self._process.send_signal(signal.SIGQUIT)  # Finish active requests first.
            try:
                self._process.wait(10)
            except subprocess.TimeoutExpired:
                self._process.terminate()
                self._process.wait(10)

    def requests(self):
        """Returns the completed requests, in order of completion, each with its "body"."""
        entries = []
        for line in (self.folder / "requests.json").read_text().splitlines():
            entry = json.loads(line)
            body_file = entry.pop("body_file")
            entry["body"] = Path(body_file).read_bytes() if body_file else b""
            entries.append(entry)
        return entries

    def _wait_until_open(self, seconds=15):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if self._process.poll() is not None:
                raise RuntimeError((self.folder / "start.log").read_text())
            try:
                socket.create_connection(("127.0.0.1", self.port), 1).close()
                return
            except OSError:
                time.sleep(0.02)
        raise RuntimeError("nginx does not open its port")


def _free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]
