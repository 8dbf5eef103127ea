"""Certificates that can be read but cannot be used."""

import base64
import datetime
import re

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import rsa
from cryptography.hazmat.primitives.serialization import NoEncryption, pkcs12

from . import messages as say
from .harness import expect_messages


def test_certificate_text_with_a_key_and_no_certificate_is_logged(machine, service):
    content = pkcs12.serialize_key_and_certificates(
        b"key alone", rsa.generate_private_key(65537, 2048), None, None, NoEncryption()
    )
    machine.switch_log_on()
    machine.account("alice", cert={"base64encoded": base64.b64encode(content).decode("ascii")})
    machine.log("alice", "a.log")
    refusal = "<ParseAuthParam> CertFindCertificateInStore error [-2146885628]"
    if machine.platform.name == "windows":
        # Wine's import fails without giving a reason.
        refusal = re.compile(
            r"<ParseAuthParam> (PFXImportCertStore|CertFindCertificateInStore) error \[-?\d+\]"
        )
    machine.run()
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in("alice"),
            refusal,
            *say.accepted(machine, "alice", "a.log"),
            *say.account_out("alice"),
            *say.summary(accounts=1, send=1, ok=1),
        ],
    )


def certificate_with_weak_key():
    """Returns a certificate with a key too short for today's TLS libraries, and the key."""
    key = rsa.generate_private_key(65537, 1024)
    name = x509.Name([])
    now = datetime.datetime.now(datetime.timezone.utc)
    certificate = (
        x509.CertificateBuilder()
        .subject_name(name)
        .issuer_name(name)
        .public_key(key.public_key())
        .serial_number(1)
        .not_valid_before(now - datetime.timedelta(days=1))
        .not_valid_after(now + datetime.timedelta(days=1))
        .sign(key, hashes.SHA256())
    )
    return certificate, key


def test_certificate_that_the_tls_library_refuses_is_a_transport_failure(machine, service):
    if machine.platform.name == "windows":
        pytest.skip("Windows leaves it to the server to check the certificate")
    certificate, key = certificate_with_weak_key()
    store = machine.sysroot / "home/.config/keyward/certs/MY"
    store.mkdir(parents=True)
    (store / "weak.pem").write_bytes(
        certificate.public_bytes(serialization.Encoding.PEM)
        + key.private_bytes(
            serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8, NoEncryption()
        )
    )
    machine.switch_log_on()
    reference = {"hash": certificate.fingerprint(hashes.SHA1()).hex(), "store": "user"}
    machine.account("alice", cert=reference)
    machine.log("alice", "a.log")
    machine.run()
    assert machine.is_waiting("alice", "a.log")
    assert not service.requests
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in("alice"),
            *say.tried(machine, "alice", "a.log"),
            "<UploadOneUser> exception socket[alice]",
            re.compile(
                r"exception message \[.*Failed to set WINHTTP_NO_CLIENT_CERT_CONTEXT"
                r".*tag_errno.* = 31.*",
                re.DOTALL,
            ),
            *say.summary(accounts=1),
        ],
    )
