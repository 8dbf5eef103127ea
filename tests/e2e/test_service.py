"""Tests of the test service itself, on which the other tests rely."""

import http.client
import json
import signal
import socket
import ssl
import subprocess
import sys
import time
from pathlib import Path

import pytest

from service.certificates import CertificateFactory
from service.log_service import SERVICE_PATH, Account, Answer, Hold, LogService, Stage
from service.nginx_service import Nginx, find_nginx
from service.revocation_service import RevocationService

GOOD = {"Authorization": "Bearer key-1", "Cookie": "idp.session=session-1"}
ALICE = Account("alice", "key-1", "session-1")
REFUSED = Account("bob", "key-2", "session-2", refused=True)


@pytest.fixture(scope="module")
def certificates(tmp_path_factory):
    return CertificateFactory(tmp_path_factory.mktemp("certificates"))


@pytest.fixture
def service(certificates, tmp_path):
    store = tmp_path / "store"
    with LogService(certificates.server, accounts=[ALICE, REFUSED], store=store) as running:
        yield running


def _trusting(certificates):
    return ssl.create_default_context(cadata=certificates.authority.pem.decode())


def _post(certificates, service, body=b"text", headers=None, path=SERVICE_PATH, method="POST"):
    connection = http.client.HTTPSConnection(
        "localhost", service.port, timeout=10, context=_trusting(certificates)
    )
    try:
        connection.request(method, path, body, headers if headers is not None else GOOD)
        answer = connection.getresponse()
        return answer.status, answer.read()
    finally:
        connection.close()


def test_accepted_request_is_recorded_and_stored(service, certificates, tmp_path):
    assert _post(certificates, service, b"one\n")[0] == 200
    assert _post(certificates, service, b"two\n")[0] == 200
    first = service.requests[0]
    line = b"POST " + SERVICE_PATH.encode() + b" HTTP/1.1\r\n"
    assert first.head.startswith(line + b"Host: localhost:")
    assert first.head.endswith(b"\r\n\r\n")
    assert (first.body, first.framing, first.account) == (b"one\n", "length", "alice")
    assert first.connection.tls_version == "TLSv1.3"
    assert (tmp_path / "store/alice/0001.log").read_bytes() == b"one\n"
    assert (tmp_path / "store/alice/0002.log").read_bytes() == b"two\n"


def test_chunked_body_is_decoded(service, certificates):
    assert _post(certificates, service, iter([b"ab", b"c" * 70000]))[0] == 200
    assert service.requests[0].framing == "chunked"
    assert service.requests[0].body == b"ab" + b"c" * 70000


@pytest.mark.parametrize(
    ("changes", "status"),
    [
        ({"headers": {}}, 401),
        ({"headers": {**GOOD, "Cookie": "idp.session=session-2"}}, 401),
        ({"headers": {"Authorization": "Bearer key-2", "Cookie": "idp.session=session-2"}}, 401),
        ({"path": SERVICE_PATH + "/"}, 404),
        ({"path": SERVICE_PATH + "?a=b"}, 404),
        ({"method": "PUT"}, 405),
    ],
)
def test_wrong_request_is_refused(service, certificates, tmp_path, changes, status):
    assert _post(certificates, service, **changes)[0] == status
    assert service.requests[0].status == status
    assert not (tmp_path / "store").exists()


def test_answers_follow_the_queue_and_then_the_function(service, certificates):
    service.answer_with(Answer(503, b"later", interim=(100, 100)), None)
    service.decide = lambda request: Answer(202) if request.body == b"third" else None
    assert _post(certificates, service, b"first") == (503, b"later")
    assert _post(certificates, service, b"second")[0] == 200
    assert _post(certificates, service, b"third")[0] == 202
    assert [one.status for one in service.requests] == [503, 200, 202]


@pytest.mark.parametrize("reset", [False, True])
@pytest.mark.parametrize("stage", Stage)
def test_connection_is_dropped_where_the_script_says(service, certificates, stage, reset):
    service.answer_with(Answer(200, b"x" * 100, drop=stage, drop_after=10, reset=reset))
    with pytest.raises((OSError, http.client.HTTPException)):
        _post(certificates, service)
    assert _post(certificates, service)[0] == 200


def test_endless_answer_ends_with_the_client(service, certificates):
    def endless():
        while True:
            yield b"x" * 10000

    service.answer_with(Answer(500, endless()))
    connection = http.client.HTTPSConnection(
        "localhost", service.port, timeout=10, context=_trusting(certificates)
    )
    connection.request("POST", SERVICE_PATH, b"", GOOD)
    answer = connection.getresponse()
    assert len(answer.read(1000000)) == 1000000
    answer.close()
    connection.close()


def test_held_answer_waits_for_its_release(service, certificates):
    hold = Hold()
    service.answer_with(Answer(200, hold=hold))
    with socket.create_connection(("localhost", service.port)) as raw:
        with _trusting(certificates).wrap_socket(raw, server_hostname="localhost") as secure:
            lines = [f"POST {SERVICE_PATH} HTTP/1.1", "Host: x", "Content-Length: 0", "", ""]
            secure.sendall("\r\n".join(lines).encode())
            assert hold.reached.wait(10)
            secure.settimeout(0.1)
            with pytest.raises(TimeoutError):
                secure.recv(1)
            hold.release.set()
            secure.settimeout(10)
            assert secure.recv(1) == b"H"


@pytest.mark.parametrize(
    "identity", ["expired_server", "wrong_host_server", "other_authority_server"]
)
def test_bad_server_certificate_is_refused_by_a_validating_client(certificates, identity):
    with LogService(getattr(certificates, identity)) as service:
        with pytest.raises(ssl.SSLCertVerificationError):
            _post(certificates, service)


def test_only_the_requested_versions_are_offered(certificates):
    only = ssl.TLSVersion.TLSv1_2
    with LogService(certificates.server, minimum=only, maximum=only, accounts=[ALICE]) as service:
        assert _post(certificates, service)[0] == 200
        assert service.connections[0].tls_version == "TLSv1.2"


def test_client_certificate_is_recorded(certificates):
    authority = certificates.authority.pem
    path = certificates.write("client.pem", certificates.client.pem)
    with LogService(
        certificates.server,
        accounts=[ALICE],
        client_authority=authority,
        require_client_certificate=True,
    ) as service:
        with pytest.raises(OSError):
            _post(certificates, service)
        context = _trusting(certificates)
        context.load_cert_chain(path)
        connection = http.client.HTTPSConnection(
            "localhost", service.port, timeout=10, context=context
        )
        connection.request("POST", SERVICE_PATH, b"", GOOD)
        assert connection.getresponse().status == 200
        connection.close()
        assert service.requests[0].connection.client_certificate == certificates.client.der


def test_revoked_certificate_is_on_the_published_list(tmp_path):
    with RevocationService() as revocation:
        factory = CertificateFactory(tmp_path, revocation.url)
        revocation.source = factory.authority.revocation_list
        context = _trusting(factory)
        host = revocation.url.split("/")[2]
        connection = http.client.HTTPConnection(host, timeout=10)
        for identity, good in [(factory.server, True), (factory.revoked_server, False)]:
            connection.request("GET", "/authority.crl")
            path = factory.write("list.crl.der", connection.getresponse().read())
            pem = ssl.DER_cert_to_PEM_cert(path.read_bytes()).replace("CERTIFICATE", "X509 CRL")
            context.load_verify_locations(factory.write("list.crl.pem", pem.encode()))
            context.verify_flags |= ssl.VERIFY_CRL_CHECK_LEAF
            with LogService(identity, accounts=[ALICE]) as service:
                client = http.client.HTTPSConnection(
                    "localhost", service.port, timeout=10, context=context
                )
                if good:
                    client.connect()
                else:
                    with pytest.raises(ssl.SSLCertVerificationError, match="revoked"):
                        client.connect()
                client.close()
        connection.close()


@pytest.mark.skipif(find_nginx() is None, reason="nginx is not installed")
def test_nginx_accepts_and_records(certificates, tmp_path):
    with Nginx(tmp_path / "nginx", certificates.server, status=202) as nginx:
        body = bytes(range(256)) * 1000
        assert _post(certificates, nginx, body)[0] == 202
        assert _post(certificates, nginx, path="/elsewhere")[0] == 404
    first, second = nginx.requests()
    assert (first["method"], first["path"], first["status"]) == ("POST", SERVICE_PATH, 202)
    assert first["body"] == body
    assert second["status"] == 404


def test_program_serves_and_prints_requests_without_secrets(certificates, tmp_path):
    accounts = [{"name": "alice", "apikey": "key-1", "idp_session": "session-1"}]
    (tmp_path / "accounts.json").write_text(json.dumps(accounts))
    ready = tmp_path / "ready"
    process = subprocess.Popen(
        [
            sys.executable,
            str(Path(__file__).parents[1] / "service" / "log_service.py"),
            *("--store", str(tmp_path / "store")),
            *("--accounts", str(tmp_path / "accounts.json")),
            *("--ready-file", str(ready)),
        ],
        stdout=subprocess.PIPE,
    )
    try:
        end = time.monotonic() + 20
        while not ready.exists() and time.monotonic() < end:
            assert process.poll() is None
            time.sleep(0.02)
        connection = http.client.HTTPSConnection(
            "localhost",
            json.loads(ready.read_text())["port"],
            timeout=10,
            context=ssl._create_unverified_context(),
        )
        connection.request("POST", SERVICE_PATH, b"line\n", GOOD)
        assert connection.getresponse().status == 200
        connection.close()
        process.send_signal(signal.SIGTERM)
        output, _ = process.communicate(timeout=10)
    finally:
        if process.poll() is None:
            process.kill()
            process.wait()
    assert process.returncode == 0
    assert json.loads(output)["account"] == "alice"
    assert b"key-1" not in output and b"session-1" not in output
    assert (tmp_path / "store/alice/0001.log").read_bytes() == b"line\n"
