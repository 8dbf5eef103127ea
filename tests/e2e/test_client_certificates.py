"""Client certificates from the machine's stores, and the server validation that they turn on."""

import base64
import dataclasses
import os
import re
import threading

import pytest
from cryptography.x509.oid import ExtendedKeyUsageOID

from service.certificates import CertificateFactory
from service.nginx_service import Nginx, find_nginx
from service.revocation_service import RevocationService

from . import messages as say
from .harness import expect_messages
from .lines import expect_all_sent, expect_nothing_sent, serve

NOT_FOUND = -2146885628  # CRYPT_E_NOT_FOUND as logged
PFX_ERRORS = {None: -2146885630, b"secret": 86}  # CRYPT_E_BAD_ENCODE, ERROR_INVALID_PASSWORD
SCOPES = ("user", "comp")


@pytest.fixture(scope="module")
def authority():
    """Publishes the revocation list of the certificates while the module runs."""
    with RevocationService() as revocations:
        yield revocations


@pytest.fixture(scope="module")
def trusted(authority, tmp_path_factory):
    factory = CertificateFactory(tmp_path_factory.mktemp("trusted"), authority.url)
    authority.source = factory.authority.revocation_list
    assert factory.revoked_server  # Revoke it before anyone fetches and caches the list.
    return factory


@pytest.fixture(scope="module", autouse=True)
def forget(platform):
    yield
    platform.forget_certificates()


@pytest.fixture
def alice(machine, trusted):
    """Alice's credentials name a certificate of the user's store; the authority is trusted."""
    machine.switch_log_on()
    machine.trust(trusted.authority)
    machine.account("alice", cert=machine.client_certificate("user", trusted.client))
    machine.logs("alice", "a.log", "b.log")
    return machine


def serve_asking(machine, factory, **options):
    """Starts a service that requests a client certificate of the factory's authority."""
    return serve(machine, factory.server, client_authority=factory.authority.pem, **options)


def expect_sent_without_certificate(machine, service, *selection):
    """Runs the program, which sends both files; selecting a certificate logs only `selection`."""
    first, second = machine.search_order("alice")
    machine.run()
    assert shown(service) == [None, None]
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in("alice"),
            *selection,
            *say.accepted(machine, "alice", first),
            *say.accepted(machine, "alice", second),
            *say.account_out("alice"),
            *say.summary(accounts=1, send=1, ok=2),
        ],
    )


def shown(service):
    return [one.client_certificate for one in service.connections]


# Which certificate is presented.


@pytest.mark.parametrize("scope", SCOPES)
def test_certificate_of_the_scopes_store_is_presented_for_every_file(machine, trusted, scope):
    by_scope = {"user": trusted.client, "comp": trusted.second_client}
    references = {one: machine.client_certificate(one, by_scope[one]) for one in SCOPES}
    mine = by_scope[scope]
    machine.trust(trusted.authority)
    machine.switch_log_on()
    machine.account("alice", cert=references[scope])
    machine.logs("alice", "a.log", "b.log")
    with serve_asking(machine, trusted, require_client_certificate=True) as service:
        expect_all_sent(machine)
        assert shown(service) == [mine.der, mine.der]


def test_thumbprint_ignores_case_and_an_odd_last_character(alice, trusted):
    hash_text = trusted.client.thumbprint.lower() + "7"
    alice.seal("alice", cert={"hash": hash_text, "store": "user"})
    with serve_asking(alice, trusted, require_client_certificate=True) as service:
        expect_all_sent(alice)
        assert shown(service) == [trusted.client.der] * 2


def test_certificate_of_the_other_scope_is_not_found(alice, trusted):
    alice.client_certificate("comp", trusted.second_client)
    alice.seal("alice", cert={"hash": trusted.client.thumbprint, "store": "comp"})
    with serve_asking(alice, trusted) as service:
        expect_all_sent(alice)
        assert shown(service) == [None, None]
    message = f"<SearchContext> CertFindCertificateInStore error [{NOT_FOUND}]"
    assert alice.messages()[3] == message


@pytest.mark.parametrize("hash_text", ["00" * 20, "A", "no thumbprint at all"])
def test_unknown_thumbprint_is_logged_and_the_files_are_sent_without_certificate(
    alice, trusted, hash_text
):
    alice.seal("alice", cert={"hash": hash_text, "store": "user"})
    with serve_asking(alice, trusted) as service:
        expect_sent_without_certificate(
            alice,
            service,
            f"<SearchContext> CertFindCertificateInStore error [{NOT_FOUND}]",
        )


@pytest.mark.parametrize("store", ["User", "user ", "machine", "COMP"])
def test_any_other_scope_selects_and_logs_nothing(alice, trusted, store):
    alice.seal("alice", cert={"hash": trusted.client.thumbprint, "store": store})
    with serve_asking(alice, trusted) as service:
        expect_sent_without_certificate(alice, service)


@pytest.mark.parametrize("missing", ["hash", "store"])
def test_incomplete_reference_selects_and_logs_nothing(alice, trusted, missing):
    reference = {"hash": trusted.client.thumbprint, "store": "user"}
    reference[missing] = ""
    alice.seal("alice", cert=reference)
    with serve_asking(alice, trusted) as service:
        expect_all_sent(alice)
        assert shown(service) == [None, None]
    assert not [text for text in alice.messages() if "Cert" in text]


@pytest.mark.parametrize(("scope", "function"), [("user", "SetUserCert"), ("comp", "SetCompCert")])
def test_missing_store_is_logged_and_the_files_are_sent_without_certificate(
    machine, trusted, scope, function
):
    if machine.platform.name == "windows":
        pytest.skip("on Windows these stores always exist")
    machine.switch_log_on()
    machine.account("alice", cert={"hash": trusted.client.thumbprint, "store": scope})
    machine.logs("alice", "a.log", "b.log")
    with serve_asking(machine, trusted) as service:
        expect_all_sent(machine)
        assert shown(service) == [None, None]
    assert machine.messages()[3] == f"<{function}> CertOpenStore error [2]"


# A certificate given as text is checked, but never used.


def pfx_text(content):
    return base64.b64encode(content).decode("ascii")


def test_certificate_text_takes_precedence_over_the_store_and_is_not_presented(alice, trusted, certificates):
    reference = {"hash": trusted.client.thumbprint, "store": "user"}
    text = pfx_text(trusted.client.pfx())
    alice.seal("alice", cert={"base64encoded": text, **reference})
    # The server is not validated either: the machine does not know its authority.
    with serve(
        alice, certificates.other_authority_server, client_authority=trusted.authority.pem
    ) as service:
        expect_sent_without_certificate(alice, service)


def test_faulty_certificate_text_does_not_fall_back_to_the_store(alice, trusted):
    reference = {"hash": trusted.client.thumbprint, "store": "user"}
    alice.seal("alice", cert={"base64encoded": "*", **reference})
    with serve_asking(alice, trusted) as service:
        expect_all_sent(alice)
        assert shown(service) == [None, None]
    assert alice.messages()[3] == "<ParseAuthParam> memory error"


@pytest.mark.parametrize("password", [None, b"secret"], ids=["no PFX", "PFX with a password"])
def test_certificate_text_that_cannot_be_imported_is_logged(alice, trusted, password):
    content = trusted.client.pfx(password) if password else b"no certificate"
    number = PFX_ERRORS[password]
    if alice.platform.name == "windows":
        number = say.ANY_NUMBER  # Wine's import does not set an error.
    alice.seal("alice", cert={"base64encoded": pfx_text(content)})
    with serve_asking(alice, trusted) as service:
        expect_sent_without_certificate(
            alice,
            service,
            *([] if password else ["<ParseAuthParam> PFXIsPFXBlob error"]),
            re.compile(rf"<ParseAuthParam> PFXImportCertStore error \[{number}\]"),
        )


# A client certificate turns on server validation.


def test_trusted_server_with_a_published_revocation_list_is_accepted(alice, trusted, authority):
    with serve(alice, trusted.server):
        expect_all_sent(alice)
    # Only Windows fetches the list, and then caches it.
    assert (authority.requests > 0) == (alice.platform.name == "windows")


@pytest.mark.parametrize(
    "identity",
    ["other_authority_server", "self_signed_server", "wrong_host_server", "expired_server"],
)
def test_untrusted_server_is_refused(alice, trusted, identity):
    with serve(alice, getattr(trusted, identity)) as service:
        expect_nothing_sent(alice)
        assert not service.requests


def test_server_is_refused_once_it_is_untrusted(alice, trusted):
    first, second = alice.search_order("alice")
    with serve(alice, trusted.server) as service:
        service.on_request = lambda request: service.present(trusted.self_signed_server)
        alice.run()
        assert [one.body for one in service.requests] == [alice.content("alice", first)]
    assert alice.is_archived("alice", first) and alice.is_waiting("alice", second)
    expect_messages(
        alice.messages(),
        [
            *say.started(alice),
            *say.account_in("alice"),
            *say.accepted(alice, "alice", first),
            *say.tried(alice, "alice", second),
            *say.transport_failure("alice"),
            *say.summary(accounts=1, ok=1),
        ],
    )


def needs_revocation_check(machine):
    if machine.platform.name != "windows":
        pytest.skip("only WinHTTP checks revocation")


def test_server_with_unavailable_revocation_list_is_refused(alice, trusted):
    needs_revocation_check(alice)
    unpublished = dataclasses.replace(
        trusted.authority, revocation_url="http://127.0.0.1:9/nobody.crl"
    )
    server = unpublished.issue(
        "localhost", names=("localhost",), usage=ExtendedKeyUsageOID.SERVER_AUTH
    )
    with serve(alice, server) as service:
        expect_nothing_sent(alice)
        assert not service.requests


def test_server_whose_certificate_was_revoked_is_refused(alice, trusted):
    needs_revocation_check(alice)
    with serve(alice, trusted.revoked_server) as service:
        expect_nothing_sent(alice)
        assert not service.requests


def test_server_without_a_revocation_address_is_refused(alice, trusted):
    needs_revocation_check(alice)
    unnamed = dataclasses.replace(trusted.authority, revocation_url=None)
    server = unnamed.issue("localhost", names=("localhost",), usage=ExtendedKeyUsageOID.SERVER_AUTH)
    with serve(alice, server) as service:
        expect_nothing_sent(alice)
        assert not service.requests


def test_validation_follows_each_accounts_own_certificate(alice, trusted):
    """An untrusted server: refused with a certificate, accepted without one."""
    alice.account("bob")
    alice.logs("bob", "a.log", "b.log")
    with serve(alice, trusted.self_signed_server) as service:
        alice.run()
        assert [one.account for one in service.requests] == ["bob", "bob"]
    assert alice.is_waiting("alice", "a.log") and alice.is_waiting("alice", "b.log")
    assert alice.is_archived("bob", "a.log") and alice.is_archived("bob", "b.log")
    assert alice.messages()[-3:] == say.summary(accounts=2, send=1, ok=2)


def test_certificate_that_the_server_refuses_is_a_transport_failure(alice, trusted):
    reference = alice.client_certificate("user", trusted.other_client)
    alice.seal("alice", cert=reference)
    with serve_asking(alice, trusted, require_client_certificate=True) as service:
        expect_nothing_sent(alice)
        assert not service.requests


# A real web server.

needs_nginx = pytest.mark.skipif(find_nginx() is None, reason="nginx is not installed")


@needs_nginx
@pytest.mark.parametrize(("scope", "subject"), [("user", "CN=alice"), ("comp", "CN=bob")])
def test_real_web_server_verifies_the_certificate(machine, trusted, tmp_path, scope, subject):
    identity = trusted.client if scope == "user" else trusted.second_client
    machine.trust(trusted.authority)
    machine.switch_log_on()
    machine.account("alice", cert=machine.client_certificate(scope, identity))
    machine.logs("alice", "a.log", "b.log")
    order = machine.search_order("alice")
    authority = trusted.authority.pem
    with Nginx(tmp_path / "nginx", trusted.server, client_authority=authority) as nginx:
        machine.tenant = nginx.tenant
        expect_all_sent(machine)
    requests = nginx.requests()
    assert [one["body"] for one in requests] == [machine.content("alice", name) for name in order]
    for one in requests:
        assert (one["client"], one["verify"]) == (subject, "SUCCESS")
        assert one["protocol"] == "TLSv1.2"


@needs_nginx
def test_real_web_server_that_requires_a_certificate_is_an_ordinary_failure(
    machine, trusted, tmp_path
):
    """nginx completes the handshake and answers 400."""
    machine.switch_log_on()
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    authority = trusted.authority.pem
    with Nginx(tmp_path / "nginx", trusted.server, client_authority=authority) as nginx:
        machine.tenant = nginx.tenant
        machine.run()
    assert machine.is_waiting("alice", "a.log") and machine.is_waiting("alice", "b.log")
    errors = [text for text in machine.messages() if "Error [400, " in text]
    assert len(errors) == 2
    assert machine.messages()[-3:] == say.summary(accounts=1, send=1, error=2)


@needs_nginx
def test_sessions_are_resumed_only_with_the_same_certificate(machine, trusted, tmp_path):
    """A TLS session of one account's certificate must not be resumed for another account."""
    if machine.platform.name == "windows":
        pytest.skip("WinHTTP decides on its own when to resume")
    machine.trust(trusted.authority)
    own = {
        "alice": machine.client_certificate("user", trusted.client),
        "bob": None,
        "carol": machine.client_certificate("comp", trusted.second_client),
        "dave": None,
    }
    for name, certificate in own.items():
        machine.account(name, **({"cert": certificate} if certificate else {}))
        machine.logs(name, "a.log", "b.log")
    names = machine.account_order()
    with Nginx(tmp_path / "nginx", trusted.server) as nginx:
        machine.tenant = nginx.tenant
        machine.run()
    resumed = {name: [] for name in names}
    for request in nginx.requests():
        account = request["body"].split(b"/")[0].decode()
        resumed[account].append(request["resumed"] == "r")
    later_without = [name for name in names if own[name] is None][1]
    for name in names:
        assert resumed[name] == [name == later_without, True]


@pytest.fixture
def authorities_pipe(machine):
    """The file of trusted authorities as a named pipe: opening it blocks until there is a writer."""
    if machine.platform.name == "windows":
        pytest.skip("on Windows the system keeps the authorities")
    path = machine.sysroot / "authorities.pem"

    def replace():
        content = path.read_bytes()
        path.unlink()
        os.mkfifo(path)
        return path, content

    return replace


def test_authorities_are_read_once_for_all_accounts(machine, trusted, authorities_pipe):
    machine.trust(trusted.authority)
    for name, scope in (("alice", "user"), ("bob", "comp")):
        machine.account(name, cert=machine.client_certificate(scope, trusted.client))
        machine.logs(name, "a.log", "b.log")
    pipe, content = authorities_pipe()
    threading.Thread(target=pipe.write_bytes, args=(content,), daemon=True).start()
    with serve(machine, trusted.server) as service:
        machine.run()
        assert len(service.requests) == 4
    for name in ("alice", "bob"):
        assert machine.is_archived(name, "a.log") and machine.is_archived(name, "b.log")


def test_authorities_are_not_read_without_a_client_certificate(machine, trusted, authorities_pipe):
    machine.trust(trusted.authority)
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    authorities_pipe()
    with serve(machine, trusted.server) as service:
        machine.run()
        assert len(service.requests) == 2
    assert machine.is_archived("alice", "a.log") and machine.is_archived("alice", "b.log")
