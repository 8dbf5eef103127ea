"""Signatures: of the programs before they are packaged, and of the MSI package itself."""

import datetime
import http.server
import shutil
import subprocess
import threading
import zipfile

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import rsa
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

pytestmark = pytest.mark.skipif(shutil.which("osslsigncode") is None, reason="osslsigncode is not installed")


@pytest.fixture(scope="session")
def identity(tmp_path_factory):
    """A code signing certificate and its key, in PEM files."""
    folder = tmp_path_factory.mktemp("identity")
    key = rsa.generate_private_key(public_exponent=65537, key_size=2048)
    name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "KydLogUploader test")])
    now = datetime.datetime.now(datetime.timezone.utc)
    certificate = (
        x509.CertificateBuilder()
        .subject_name(name).issuer_name(name).public_key(key.public_key())
        .serial_number(x509.random_serial_number())
        .not_valid_before(now - datetime.timedelta(days=1))
        .not_valid_after(now + datetime.timedelta(days=1))
        .add_extension(x509.ExtendedKeyUsage([ExtendedKeyUsageOID.CODE_SIGNING]), critical=True)
        .sign(key, hashes.SHA256())
    )
    paths = folder / "certificate.pem", folder / "key.pem"
    paths[0].write_bytes(certificate.public_bytes(serialization.Encoding.PEM))
    paths[1].write_bytes(key.private_bytes(
        serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8, serialization.NoEncryption()
    ))
    return paths


@pytest.fixture(scope="session")
def signed(identity, tmp_path_factory):
    """The signed packages for Windows."""
    import project
    import signing
    import windows

    folder = tmp_path_factory.mktemp("signed")
    windows.build(folder, project.commit_time(), signing.Signing(*identity, None))
    return folder


TIME_STAMP_SETTINGS = """
[tsa]
default_tsa = authority
[authority]
serial = serial
signer_digest = sha256
default_policy = 1.2.3.4
digests = sha256, sha384, sha512
"""


@pytest.fixture
def time_stamps(tmp_path, monkeypatch):
    """A time stamp authority (RFC 3161); its address and its certificate."""

    def openssl(*words):
        subprocess.run(["openssl", *words], cwd=tmp_path, check=True, capture_output=True)

    monkeypatch.setenv("no_proxy", "127.0.0.1")
    (tmp_path / "tsa.cnf").write_text(TIME_STAMP_SETTINGS, "ascii")
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=time", "-keyout", "tsa.key",
            "-out", "tsa.pem", "-addext", "extendedKeyUsage=critical,timeStamping")

    class Authority(http.server.BaseHTTPRequestHandler):
        def do_POST(self):
            (tmp_path / "query").write_bytes(self.rfile.read(int(self.headers["Content-Length"])))
            openssl("ts", "-reply", "-config", "tsa.cnf", "-queryfile", "query", "-inkey", "tsa.key",
                    "-signer", "tsa.pem", "-out", "reply")
            content = (tmp_path / "reply").read_bytes()
            self.send_response(200)
            self.send_header("Content-Type", "application/timestamp-reply")
            self.send_header("Content-Length", str(len(content)))
            self.end_headers()
            self.wfile.write(content)

        def log_message(self, *_):
            pass

    with http.server.HTTPServer(("127.0.0.1", 0), Authority) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        yield f"http://127.0.0.1:{server.server_port}", tmp_path / "tsa.pem"
        server.shutdown()


def test_signature_bears_the_authoritys_time(archives, identity, time_stamps, tmp_path):
    import signing

    address, authority = time_stamps
    times = []
    for time_stamp in (None, address):
        program = tmp_path / "KydUploadStatus.exe"
        shutil.copyfile(archives.product / program.name, program)
        signing.Signing(*identity, time_stamp)(program)
        listed = subprocess.run(
            ["osslsigncode", "verify", "-CAfile", identity[0], "-TSA-CAfile", authority, "-in", program],
            check=True, capture_output=True, text=True,
        ).stdout
        times.append("Timestamp Server Signature verification: ok" in listed)
    assert times == [False, True]


def is_signed(program, certificate):
    done = subprocess.run(
        ["osslsigncode", "verify", "-CAfile", certificate, "-in", program],
        check=False, capture_output=True, text=True,
    )
    return done.returncode == 0 and "Signature verification: ok" in done.stdout


def test_package_and_programs_are_signed(signed, identity, version, tmp_path):
    name = f"KydLogUploader-{version}-windows-x64-mingw"
    assert is_signed(signed / f"{name}.msi", identity[0])
    with zipfile.ZipFile(signed / f"{name}.zip") as archive:
        archive.extractall(tmp_path)
    for program in ("KydLogUploader.exe", "KydUploadStatus.exe"):
        assert is_signed(tmp_path / name / program, identity[0])


def test_what_is_installed_is_signed(signed, identity, version, windows):
    windows.clean()
    try:
        package = signed / f"KydLogUploader-{version}-windows-x64-mingw.msi"
        assert windows.install(package) == 0
        for program in ("KydLogUploader.exe", "KydUploadStatus.exe"):
            assert is_signed(windows.folder / program, identity[0])
        assert windows.uninstall(package) == 0
    finally:
        windows.clean()


def test_change_after_signing_is_detected(signed, identity, version, tmp_path):
    changed = tmp_path / "changed.msi"
    content = bytearray((signed / f"KydLogUploader-{version}-windows-x64-mingw.msi").read_bytes())
    content[len(content) // 2] ^= 1
    changed.write_bytes(content)
    assert not is_signed(changed, identity[0])


def test_packages_without_a_certificate_are_not_signed(archives, identity):
    assert not is_signed(archives.product / "KydLogUploader.exe", identity[0])
