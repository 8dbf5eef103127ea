"""Certificates for tests and the demo, created on demand.

A `CertificateFactory` creates each key once and keeps it in memory; all files are in the folder that it was
given.
"""

import datetime
import functools
import ipaddress
import struct
from dataclasses import dataclass, field
from pathlib import Path

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, rsa
from cryptography.hazmat.primitives.serialization import pkcs12
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

LOOPBACK_NAMES = ("localhost", "127.0.0.1", "::1")
AUTHORITY_NAMES = ("Test authority", "Unknown authority")
_DAY = datetime.timedelta(days=1)


def _now():
    return datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0, tzinfo=None)


def _name(common_name):
    return x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, common_name)])


def _alternative_name(text):
    try:
        return x509.IPAddress(ipaddress.ip_address(text))
    except ValueError:
        return x509.DNSName(text)


@dataclass(frozen=True)
class Identity:
    """A certificate with its private key and its chain up to, but without, a trusted certificate."""

    key: rsa.RSAPrivateKey | ec.EllipticCurvePrivateKey
    certificate: x509.Certificate
    chain: tuple = ()

    @property
    def certificate_pem(self):
        """The certificate and its chain, leaf first."""
        return b"".join(
            one.public_bytes(serialization.Encoding.PEM) for one in (self.certificate, *self.chain)
        )

    @property
    def key_pem(self):
        """The private key, unencrypted, PKCS #8."""
        return self.key.private_bytes(
            serialization.Encoding.PEM,
            serialization.PrivateFormat.PKCS8,
            serialization.NoEncryption(),
        )

    @property
    def key_blob(self):
        """The private key in Windows' import format: a PRIVATEKEYBLOB for key exchange (wincrypt.h)."""
        numbers = self.key.private_numbers()
        size = self.key.key_size // 8
        halves = (numbers.p, numbers.q, numbers.dmp1, numbers.dmq1, numbers.iqmp)
        return b"".join(
            (
                struct.pack("<BBHI", 7, 2, 0, 0xA400),
                struct.pack("<4sII", b"RSA2", self.key.key_size, numbers.public_numbers.e),
                numbers.public_numbers.n.to_bytes(size, "little"),
                *(half.to_bytes(size // 2, "little") for half in halves),
                numbers.d.to_bytes(size, "little"),
            )
        )

    @property
    def pem(self):
        """Certificate, chain and key as one PEM text."""
        return self.certificate_pem + self.key_pem

    @property
    def der(self):
        """The certificate alone, DER-encoded."""
        return self.certificate.public_bytes(serialization.Encoding.DER)

    @property
    def thumbprint(self):
        """The certificate's SHA-1 hash in upper-case hexadecimal."""
        return self.certificate.fingerprint(hashes.SHA1()).hex().upper()

    def pfx(self, password=None):
        """Returns the identity as PKCS #12, by default without a password."""
        encryption = (
            serialization.BestAvailableEncryption(password)
            if password
            else serialization.NoEncryption()
        )
        return pkcs12.serialize_key_and_certificates(
            b"client", self.key, self.certificate, list(self.chain) or None, encryption
        )


@dataclass
class Authority:
    """Signs certificates and keeps the list of those that it has revoked."""

    identity: Identity
    # Address of the revocation list in every certificate, or None.
    revocation_url: str | None = None
    revoked: list = field(default_factory=list)

    @staticmethod
    def create(common_name, revocation_url=None):
        key = rsa.generate_private_key(public_exponent=65537, key_size=2048)
        name = _name(common_name)
        builder = (
            x509.CertificateBuilder()
            .subject_name(name)
            .issuer_name(name)
            .public_key(key.public_key())
            .serial_number(x509.random_serial_number())
            .not_valid_before(_now() - _DAY)
            .not_valid_after(_now() + 30 * _DAY)
            .add_extension(x509.BasicConstraints(ca=True, path_length=0), critical=True)
            .add_extension(
                x509.KeyUsage(
                    digital_signature=True,
                    content_commitment=False,
                    key_encipherment=False,
                    data_encipherment=False,
                    key_agreement=False,
                    key_cert_sign=True,
                    crl_sign=True,
                    encipher_only=False,
                    decipher_only=False,
                ),
                critical=True,
            )
            .add_extension(
                x509.SubjectKeyIdentifier.from_public_key(key.public_key()), critical=False
            )
        )
        return Authority(Identity(key, builder.sign(key, hashes.SHA256())), revocation_url)

    @property
    def pem(self):
        return self.identity.certificate_pem

    def issue(self, common_name, *, names=(), usage, key=None, not_before=None, not_after=None):
        """Creates a certificate for `names`, by default with a new RSA key."""
        key = key or rsa.generate_private_key(public_exponent=65537, key_size=2048)
        builder = (
            x509.CertificateBuilder()
            .subject_name(_name(common_name))
            .issuer_name(self.identity.certificate.subject)
            .public_key(key.public_key())
            .serial_number(x509.random_serial_number())
            .not_valid_before(not_before or _now() - _DAY)
            .not_valid_after(not_after or _now() + 10 * _DAY)
            .add_extension(x509.BasicConstraints(ca=False, path_length=None), critical=True)
            .add_extension(x509.ExtendedKeyUsage([usage]), critical=False)
            .add_extension(
                x509.AuthorityKeyIdentifier.from_issuer_public_key(self.identity.key.public_key()),
                critical=False,
            )
        )
        if names:
            alternatives = [_alternative_name(name) for name in names]
            builder = builder.add_extension(
                x509.SubjectAlternativeName(alternatives), critical=False
            )
        if self.revocation_url:
            point = x509.DistributionPoint(
                [x509.UniformResourceIdentifier(self.revocation_url)], None, None, None
            )
            builder = builder.add_extension(x509.CRLDistributionPoints([point]), critical=False)
        certificate = builder.sign(self.identity.key, hashes.SHA256())
        return Identity(key, certificate, (self.identity.certificate,))

    def revoke(self, identity):
        """Adds the identity to the list that `revocation_list` returns from now on."""
        self.revoked.append(identity.certificate.serial_number)

    def revocation_list(self):
        """Returns the signed list in DER, to be served at the address in the certificates."""
        builder = (
            x509.CertificateRevocationListBuilder()
            .issuer_name(self.identity.certificate.subject)
            .last_update(_now() - _DAY)
            .next_update(_now() + 10 * _DAY)
            .add_extension(x509.CRLNumber(len(self.revoked) + 1), critical=False)
            .add_extension(
                x509.AuthorityKeyIdentifier.from_issuer_public_key(self.identity.key.public_key()),
                critical=False,
            )
        )
        for serial in self.revoked:
            entry = (
                x509.RevokedCertificateBuilder()
                .serial_number(serial)
                .revocation_date(_now() - _DAY / 2)
                .build()
            )
            builder = builder.add_revoked_certificate(entry)
        signed = builder.sign(self.identity.key, hashes.SHA256())
        return signed.public_bytes(serialization.Encoding.DER)


class CertificateFactory:
    """All certificates that the tests know by name, each created on first use.

    Every certificate contains `revocation_url`; it is up to the caller to serve `authority.revocation_list()`
    there, for example with `revocation_service.RevocationService`.
    """

    def __init__(self, folder, revocation_url=None):
        self.folder = Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.revocation_url = revocation_url

    @functools.cached_property
    def authority(self):
        return Authority.create(AUTHORITY_NAMES[0], self.revocation_url)

    @functools.cached_property
    def other_authority(self):
        """An untrusted authority."""
        return Authority.create(AUTHORITY_NAMES[1], self.revocation_url)

    @functools.cached_property
    def server(self):
        return self._server(self.authority)

    @functools.cached_property
    def elliptic_server(self):
        return self._server(self.authority, key=ec.generate_private_key(ec.SECP256R1()))

    @functools.cached_property
    def expired_server(self):
        return self._server(
            self.authority, not_before=_now() - 20 * _DAY, not_after=_now() - 10 * _DAY
        )

    @functools.cached_property
    def wrong_host_server(self):
        return self._server(self.authority, names=("elsewhere.example",))

    @functools.cached_property
    def other_authority_server(self):
        return self._server(self.other_authority)

    @functools.cached_property
    def revoked_server(self):
        identity = self._server(self.authority)
        self.authority.revoke(identity)
        return identity

    @functools.cached_property
    def self_signed_server(self):
        key = rsa.generate_private_key(public_exponent=65537, key_size=2048)
        name = _name("localhost")
        alternatives = [_alternative_name(text) for text in LOOPBACK_NAMES]
        certificate = (
            x509.CertificateBuilder()
            .subject_name(name)
            .issuer_name(name)
            .public_key(key.public_key())
            .serial_number(x509.random_serial_number())
            .not_valid_before(_now() - _DAY)
            .not_valid_after(_now() + 10 * _DAY)
            .add_extension(x509.SubjectAlternativeName(alternatives), critical=False)
            .sign(key, hashes.SHA256())
        )
        return Identity(key, certificate)

    @functools.cached_property
    def client(self):
        return self.authority.issue("alice", usage=ExtendedKeyUsageOID.CLIENT_AUTH)

    @functools.cached_property
    def second_client(self):
        return self.authority.issue("bob", usage=ExtendedKeyUsageOID.CLIENT_AUTH)

    @functools.cached_property
    def other_client(self):
        """A client certificate that no service accepts."""
        return self.other_authority.issue("mallory", usage=ExtendedKeyUsageOID.CLIENT_AUTH)

    def _server(self, authority, names=LOOPBACK_NAMES, **more):
        return authority.issue(names[0], names=names, usage=ExtendedKeyUsageOID.SERVER_AUTH, **more)

    def write(self, file_name, content):
        """Writes a file that only its owner can read to the factory's folder; returns its path."""
        path = self.folder / file_name
        path.touch(mode=0o600)
        path.write_bytes(content)
        return path
