"""Fixtures of the REST library's tests: the probe, a certificate, servers, files to send."""

import datetime
import os
import shutil
import subprocess
from pathlib import Path

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import rsa
from cryptography.x509.oid import NameOID

from scripted_server import ScriptedServer


def pytest_addoption(parser):
    parser.addoption("--probe", required=True, help="the probe that CMakeLists.txt builds")
    parser.addoption("--wine-prefix", type=Path, help="existing Wine prefix to use instead of a new one")
    parser.addoption("--leave-runs", type=int, default=40, help="number of processes for each way to exit")
    parser.addoption("--large", action="store_true", help="also send files of 4 GiB")


class Probe:
    """Runs the probe, natively or under Wine."""

    def __init__(self, path, wine_prefix):
        self.path = Path(path).resolve()
        self.windows = self.path.suffix == ".exe"
        self.environment = dict(os.environ)
        self.command = [str(self.path)]
        if self.windows and os.name != "nt":
            wine = shutil.which("wine64") or "/usr/lib/wine/wine64"
            # In one of several thousand starts, the randomized heap would occupy the address of Wine's page.
            self.command = ["setarch", "-R", wine, *self.command]
            self.environment.update(WINEPREFIX=str(wine_prefix), WINEDEBUG="-all")

    def __call__(self, *arguments, limit=60, **environment):
        """Runs the probe and returns the lines that it prints; fails if it does not exit cleanly."""
        done = subprocess.run(
            [*self.command, *map(str, arguments)],
            env={**self.environment, **environment},
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            errors="replace",
            timeout=limit,
            check=False,
        )
        assert done.returncode == 0, done.stdout + done.stderr
        lines = done.stdout.splitlines()
        assert lines[-1] == "end", done.stdout
        return lines[:-1]


def sanitizer_options(*options):
    """Adds options to those of the address sanitizer in the environment."""
    given = os.environ.get("ASAN_OPTIONS")
    return {"ASAN_OPTIONS": ":".join([*([given] if given else []), *options])}


@pytest.fixture(scope="session")
def probe(request, tmp_path_factory):
    prefix = request.config.getoption("--wine-prefix") or tmp_path_factory.mktemp("wine")
    return Probe(request.config.getoption("--probe"), prefix)


@pytest.fixture
def posix(probe):
    if probe.windows:
        pytest.skip("the Asio back end and POSIX files are not in the Windows library")


@pytest.fixture
def windows(probe):
    if not probe.windows:
        pytest.skip("WinHTTP is in the Windows library only")


@pytest.fixture(scope="session")
def certificate(tmp_path_factory):
    """Creates a PEM file with a key and a self-signed certificate for localhost."""
    key = rsa.generate_private_key(public_exponent=65537, key_size=2048)
    name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "localhost")])
    now = datetime.datetime.now(datetime.timezone.utc)
    built = (
        x509.CertificateBuilder()
        .subject_name(name)
        .issuer_name(name)
        .public_key(key.public_key())
        .serial_number(x509.random_serial_number())
        .not_valid_before(now - datetime.timedelta(days=1))
        .not_valid_after(now + datetime.timedelta(days=30))
        .add_extension(x509.SubjectAlternativeName([x509.DNSName("localhost")]), critical=False)
        .sign(key, hashes.SHA256())
    )
    path = tmp_path_factory.mktemp("certificate") / "localhost.pem"
    path.write_bytes(
        key.private_bytes(
            serialization.Encoding.PEM,
            serialization.PrivateFormat.PKCS8,
            serialization.NoEncryption(),
        )
        + built.public_bytes(serialization.Encoding.PEM)
    )
    return path


@pytest.fixture
def serve(certificate):
    """Starts servers that run until the test ends."""
    servers = []

    def start(*answers, **options):
        servers.append(ScriptedServer(certificate, answers, **options))
        return servers[-1]

    yield start
    for server in servers:
        server.close()


@pytest.fixture
def small(tmp_path):
    path = tmp_path / "small.log"
    path.write_bytes(b"0123456789" * 1000)
    return path
