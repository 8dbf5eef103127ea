"""The connection to the tenant: TLS versions, certificates, unreachable servers, nginx."""

import socket
import ssl

import pytest

from service.log_service import SERVICE_PATH
from service.nginx_service import Nginx, find_nginx

from . import messages as say
from .lines import expect_all_sent, expect_nothing_sent, serve


@pytest.fixture
def loaded(machine):
    machine.switch_log_on()
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    return machine


def test_version_is_1_2_although_the_server_offers_1_3(loaded, certificates):
    with serve(loaded, certificates.server) as service:
        expect_all_sent(loaded)
        assert [one.tls_version for one in service.connections] == ["TLSv1.2", "TLSv1.2"]


@pytest.mark.parametrize(
    "version",
    [ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1, ssl.TLSVersion.TLSv1_3],
    ids=lambda version: version.name,
)
@pytest.mark.filterwarnings("ignore:ssl.TLSVersion:DeprecationWarning")
def test_server_that_only_offers_another_version_is_a_transport_failure(
    loaded, certificates, version
):
    with serve(loaded, certificates.server, minimum=version, maximum=version) as service:
        expect_nothing_sent(loaded)
        assert not service.requests


@pytest.mark.parametrize(
    "identity",
    [
        "server",
        "self_signed_server",
        "expired_server",
        "wrong_host_server",
        "other_authority_server",
    ],
)
def test_any_server_certificate_is_accepted_without_a_client_certificate(
    loaded, certificates, identity
):
    with serve(loaded, getattr(certificates, identity)):
        expect_all_sent(loaded)


def test_no_client_certificate_is_presented_without_one_in_the_credentials(loaded, certificates):
    with serve(
        loaded, certificates.server, client_authority=certificates.authority.pem
    ) as service:
        expect_all_sent(loaded)
        assert [one.client_certificate for one in service.connections] == [None, None]


def test_server_that_insists_on_a_client_certificate_is_a_transport_failure(loaded, certificates):
    with serve(
        loaded,
        certificates.server,
        client_authority=certificates.authority.pem,
        require_client_certificate=True,
    ) as service:
        expect_nothing_sent(loaded)
        assert not service.requests


def test_server_that_speaks_no_tls_is_a_transport_failure(loaded):
    """The port answers in plain text, like a web server without TLS."""
    import threading

    with socket.create_server(("127.0.0.1", 0)) as listener:
        loaded.tenant = f"localhost:{listener.getsockname()[1]}"

        def answer():
            connection, _ = listener.accept()
            with connection:
                connection.recv(10)
                connection.sendall(b"HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n")

        thread = threading.Thread(target=answer)
        thread.start()
        expect_nothing_sent(loaded)
        thread.join()


def test_unknown_tenant_name_is_a_transport_failure(loaded):
    loaded.tenant = "no-such-host.invalid"
    expect_nothing_sent(loaded)


def test_invalid_certificate_text_does_not_prevent_sending(
    machine, certificates
):
    machine.switch_log_on()
    machine.account("alice", cert={"base64encoded": "AAAA"})
    machine.logs("alice", "a.log", "b.log")
    with serve(machine, certificates.server):
        expect_all_sent(machine)


needs_nginx = pytest.mark.skipif(find_nginx() is None, reason="nginx is not installed")


@needs_nginx
@pytest.mark.parametrize("size", [0, 100, 3_000_000])
def test_real_web_server_accepts_the_files(loaded, certificates, tmp_path, size):
    loaded.log("alice", "a.log", bytes(range(250)) * (size // 250))
    order = loaded.search_order("alice")
    with Nginx(tmp_path / "nginx", certificates.server) as nginx:
        loaded.tenant = nginx.tenant
        expect_all_sent(loaded)
    requests = nginx.requests()
    assert [one["body"] for one in requests] == [loaded.content("alice", name) for name in order]
    for one in requests:
        assert (one["method"], one["path"], one["status"]) == ("POST", SERVICE_PATH, 200)
        assert one["protocol"] == "TLSv1.2"
        assert one["host"] == loaded.tenant


@needs_nginx
def test_real_web_servers_refusal_keeps_the_files(loaded, certificates, tmp_path):
    with Nginx(tmp_path / "nginx", certificates.server, status=503) as nginx:
        loaded.tenant = nginx.tenant
        loaded.run()
    assert loaded.is_waiting("alice", "a.log") and loaded.is_waiting("alice", "b.log")
    errors = [text for text in loaded.messages() if "Error [503, " in text]
    assert len(errors) == 2
    assert all("503 Service Temporarily Unavailable" in text for text in errors)


@needs_nginx
def test_refusal_before_the_end_of_the_body_is_handled(machine, certificates, tmp_path):
    machine.switch_log_on()
    machine.account("alice")
    machine.log("alice", "large.log", bytes(8_000_000))
    machine.log("alice", "small.log")
    with Nginx(tmp_path / "nginx", certificates.server, longest_body=1000) as nginx:
        machine.tenant = nginx.tenant
        machine.run()
    assert machine.is_waiting("alice", "large.log")
    assert machine.is_archived("alice", "small.log")
    (error,) = (text for text in machine.messages() if "Error [" in text)
    assert error.startswith("<UploadOneUser> Error [413, ")
    assert machine.messages()[-3:] == say.summary(accounts=1, send=1, ok=1, error=1)
    assert len(nginx.requests()) == 2
