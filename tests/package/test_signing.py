"""Signatures: programs before they are packed, the uninstaller while it is made, the installer last."""

import datetime
import shutil
import subprocess
import zipfile

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import rsa
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

pytestmark = pytest.mark.skipif(shutil.which("osslsigncode") is None, reason="osslsigncode is not installed")


@pytest.fixture(scope="session")
def identity(tmp_path_factory):
    """A certificate for code and its key, in PEM files."""
    folder = tmp_path_factory.mktemp("identity")
    key = rsa.generate_private_key(public_exponent=65537, key_size=2048)
    name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "KydLogUploader test")])
    now = datetime.datetime.utcnow()
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
    """The packages for Windows, signed."""
    import build
    import project
    import windows

    folder = tmp_path_factory.mktemp("signed")
    signing = build.Signing(*identity, None)
    windows.build(folder, project.commit_time(), signing, signing.command())
    return folder


def is_signed(program, certificate):
    done = subprocess.run(
        ["osslsigncode", "verify", "-CAfile", certificate, "-in", program],
        check=False, capture_output=True, text=True,
    )
    return done.returncode == 0 and "Signature verification: ok" in done.stdout


def test_installer_and_programs_are_signed(signed, identity, version, tmp_path):
    name = f"KydLogUploader-{version}-windows-x64"
    assert is_signed(signed / f"{name}-setup.exe", identity[0])
    with zipfile.ZipFile(signed / f"{name}.zip") as archive:
        archive.extractall(tmp_path)
    for program in ("KydLogUploader.exe", "KydUploadStatus.exe"):
        assert is_signed(tmp_path / name / program, identity[0])


def test_what_is_installed_is_signed(signed, identity, version, windows):
    windows.clean()
    try:
        assert windows.install(signed / f"KydLogUploader-{version}-windows-x64-setup.exe") == 0
        for program in ("KydLogUploader.exe", "KydUploadStatus.exe", "Uninstall.exe"):
            assert is_signed(windows.folder / program, identity[0])
        assert windows.uninstall() == 0
    finally:
        windows.clean()


def test_change_after_signing_is_seen(signed, identity, version, tmp_path):
    changed = tmp_path / "setup.exe"
    content = bytearray((signed / f"KydLogUploader-{version}-windows-x64-setup.exe").read_bytes())
    content[0x4000] ^= 1
    changed.write_bytes(content)
    assert not is_signed(changed, identity[0])


def test_packages_without_a_certificate_are_not_signed(archives, identity):
    assert not is_signed(archives.product / "KydLogUploader.exe", identity[0])
