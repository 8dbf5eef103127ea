"""What a network and a server can do to a run; each outcome is checked in full."""

import re
import socket
import time

import pytest

from service.log_service import SERVICE_PATH, Answer, LogService, Stage

from .outcome import (
    VICTIM_SIZE,
    Accepted,
    BrokenLine,
    EndOfRun,
    Refused,
    run_with,
)

TEXT = ("Content-Type", "text/plain")


def only_on_linux(machine, why):
    if machine.platform.name == "windows":
        pytest.skip(why)


def leave_to_linux(request, plan, status):
    """Under Wine the body of an accepting answer is not read: test these only in the long form."""
    at_length = request.config.getoption("--endurance") == "long"
    if plan.machine.platform.name == "windows" and status == 200 and not at_length:
        pytest.skip("only in the long form")


# The connection.


def test_refused_connection(plan):
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))  # Bound but not listening, so that no other process can use the port.
        plan.machine.tenant = f"localhost:{taken.getsockname()[1]}"
        for account, names in plan.order:
            plan.fates[account, names[0]] = BrokenLine()
        plan.machine.run()
        plan.expect()


@pytest.mark.parametrize("reset", [False, True], ids=["ended", "reset"])
@pytest.mark.parametrize("stage", [Stage.ACCEPT, Stage.HANDSHAKE, Stage.AFTER_HANDSHAKE])
def test_connection_that_breaks_before_the_request(plan, service, stage, reset):
    run_with(plan, service, Answer(drop=stage, reset=reset), BrokenLine(), heard=False)


@pytest.mark.parametrize("reset", [False, True], ids=["ended", "reset"])
@pytest.mark.parametrize("after", [1, VICTIM_SIZE // 2, VICTIM_SIZE])
def test_connection_that_breaks_in_the_requests_body(plan, service, after, reset):
    answer = Answer(drop=Stage.REQUEST_BODY, drop_after=after, reset=reset)
    run_with(plan, service, answer, BrokenLine(), heard=False)


@pytest.mark.parametrize("reset", [False, True], ids=["ended", "reset"])
@pytest.mark.parametrize(
    "stage, after",
    [
        (Stage.BEFORE_ANSWER, 0),
        (Stage.ANSWER_HEAD, 1),
        (Stage.ANSWER_HEAD, 15),
        (Stage.ANSWER_HEAD, 30),
    ],
)
def test_connection_that_breaks_in_the_answers_head(plan, service, stage, after, reset):
    fate = BrokenLine()
    if plan.machine.platform.name == "windows" and after == 30:
        if reset:
            pytest.skip("the outcome depends on whether the reset overtakes the bytes")
        fate = Accepted()  # This version of Wine takes a head that ends after the status as complete.
    run_with(plan, service, Answer(drop=stage, drop_after=after, reset=reset), fate)


@pytest.mark.parametrize("after", [0, 1, 999])
@pytest.mark.parametrize("status", [200, 202])
def test_acceptance_with_a_truncated_body(plan, service, status, after):
    # No reset, which could overtake the bytes sent before it.
    answer = Answer(status, b"x" * 1000, drop=Stage.ANSWER_BODY, drop_after=after)
    run_with(plan, service, answer, Accepted(status))


@pytest.mark.parametrize("after", [0, 1, 999])
def test_refusal_with_a_truncated_body(plan, service, after):
    answer = Answer(500, b"x" * 1000, (TEXT,), drop=Stage.ANSWER_BODY, drop_after=after)
    if plan.machine.platform.name == "windows":
        # This version of Wine takes a truncated body as complete.
        run_with(plan, service, answer, Refused(500, "x" * after))
    else:
        run_with(plan, service, answer, EndOfRun())


# Unexpected answers.


@pytest.mark.parametrize("status", [200, 500])
def test_answer_that_comes_byte_by_byte(request, plan, service, status):
    # The long form takes longer than the 30 s time-out, which limits each part: the head, and silence in the body.
    pause = 0.28 if request.config.getoption("--endurance") == "long" else 0.01

    # The service announces that it closes the connection, or the next request might use the connection just
    # before it closes.
    head = (
        f"HTTP/1.1 {status} Text\r\nContent-Type: text/plain\r\n"
        "Content-Length: 31\r\nConnection: close\r\n\r\n"
    )

    def drops():
        for byte in (head + "this comes one byte at a time.\n").encode("ascii"):
            time.sleep(pause)
            yield bytes([byte])

    fate = Accepted() if status == 200 else Refused(500, "this comes one byte at a time.\n")
    plan.answer_victim(service, Answer(raw=drops()))
    plan.fates[plan.victim] = fate
    plan.machine.run(seconds=120)
    plan.expect(service)


def test_certificate_that_changes_between_files(plan, service, certificates):
    """Without a client certificate the server is not validated, so the change has no effect."""
    asked = plan.files().index(plan.victim)

    def change(request):
        if request.number == asked:
            service.present(certificates.self_signed_server)

    service.on_request = change
    plan.machine.run()
    plan.expect(service)


@pytest.mark.parametrize("status", [200, 500])
def test_answer_before_the_requests_body_was_read(plan, service, status):
    fate = Accepted() if status == 200 else Refused(500, "early")
    run_with(plan, service, Answer(status, b"early", (TEXT,), early=True), fate)


@pytest.mark.parametrize(
    "answer",
    [
        pytest.param(b"", id="nothing"),
        pytest.param(b"\r\n\r\n", id="empty lines"),
        pytest.param(b"this is no answer\r\n\r\n", id="no status line"),
        pytest.param(b"HTTP/1.1 xyz what\r\n\r\n", id="status is no number"),
        pytest.param(b"SSH-2.0-server\r\n", id="another protocol"),
        pytest.param(b"\x00" * 100, id="binary"),
        pytest.param(bytes(range(256)) * 4000, id="a megabyte of bytes"),
    ],
)
def test_garbage_instead_of_an_answer(plan, service, answer):
    run_with(plan, service, Answer(raw=answer), BrokenLine())


@pytest.mark.parametrize("count", [1, 1000])
@pytest.mark.parametrize("status", [200, 500])
def test_answer_with_headers_of_a_megabyte(plan, service, status, count):
    filler = "y" * (1_000_000 // count)
    headers = (TEXT, *((f"X-Filler-{number}", filler) for number in range(count)))
    fate = Accepted() if status == 200 else Refused(500, "large")
    if plan.machine.platform.name == "linux":
        fate = BrokenLine()  # the Linux back end limits the size of a head
    run_with(plan, service, Answer(status, b"large", headers), fate)


def test_header_block_without_end(plan, service):
    def endless():
        yield b"HTTP/1.1 200 OK\r\n"
        while True:
            yield b"X-Filler: " + b"y" * 10000 + b"\r\n"

    only_on_linux(plan.machine, "Wine does not limit the size of a header block, Windows does")
    run_with(plan, service, Answer(raw=endless()), BrokenLine())


@pytest.mark.parametrize("status", [200, 500])
def test_answer_with_a_body_of_100_megabytes(plan, service, status):
    def body():
        for _ in range(100):
            yield b"z" * 1_000_000

    fate = Accepted() if status == 200 else Refused(500, "z" * 2000)
    run_with(plan, service, Answer(status, body(), (TEXT,)), fate)


@pytest.mark.parametrize("status", [301, 302, 303, 307, 308])
def test_redirect_is_a_refusal_and_takes_no_key_elsewhere(plan, service, status):
    with LogService(service.identity) as elsewhere:
        location = ("Location", f"https://{elsewhere.tenant}{SERVICE_PATH}")
        answer = Answer(status, b"there", (TEXT, location))
        run_with(plan, service, answer, Refused(status, "there"))
        assert not elsewhere.connections


@pytest.mark.parametrize("interim", [(100,), (102,), (103,), (100, 103, 100)])
@pytest.mark.parametrize("status", [200, 500])
def test_interim_answers(plan, service, status, interim):
    only_on_linux(plan.machine, "Wine does not support interim answers")
    fate = Accepted() if status == 200 else Refused()
    run_with(plan, service, Answer(status, interim=interim), fate)


COMPRESSED = b"\x1f\x8b\x08\x00" + b"no compressed text" * 10


@pytest.mark.parametrize("status", [200, 500])
@pytest.mark.parametrize("coding", ["gzip", "deflate", "br", "unheard-of"])
def test_unrequested_compressed_body(request, plan, service, status, coding):
    leave_to_linux(request, plan, status)
    answer = Answer(status, COMPRESSED, (TEXT, ("Content-Encoding", coding)))
    run_with(plan, service, answer, Accepted() if status == 200 else Refused(500, re.compile(".*")))


@pytest.mark.parametrize(
    "content_type",
    [
        "text/plain; charset=utf-16",
        "text/plain; charset=utf-16le",
        "text/plain; charset=",
        "text/plain; charset=ebcdic",
        "application/json; charset=utf-32",
        "\xff\xfe",
        pytest.param("text/" + "x" * 5000, id="long"),
    ],
)
def test_content_type_that_cannot_be_text(plan, service, content_type):
    answer = Answer(500, b"odd \xff\xfe\x00 bytes", (("Content-Type", content_type),))
    run_with(plan, service, answer, Refused(500, re.compile(".*")))


def run_with_framing(plan, service, status, head, fate, windows_believes=True):
    """`fate` is the file's outcome unless the status is an acceptance.

    Wine accepts nearly any framing and reads until the connection closes.
    """
    if plan.machine.platform.name == "windows" and windows_believes:
        fate = Refused(status, re.compile("(short.*|x?)]"))
    if status == 200 and fate != BrokenLine():
        fate = Accepted()  # The body is not read.
    answer = f"HTTP/1.1 {status} Text\r\nContent-Type: text/plain\r\n{head}".encode("latin-1")
    run_with(plan, service, Answer(raw=answer), fate)


@pytest.mark.parametrize(
    "length, linux", [(1000, EndOfRun()), (5, Refused(500, "short"))], ids=["too long", "too short"]
)
@pytest.mark.parametrize("status", [200, 500])
def test_wrong_length(plan, service, status, length, linux):
    head = f"Content-Length: {length}\r\n\r\nshort" + (" and more" if length == 5 else "")
    run_with_framing(plan, service, status, head, linux)


@pytest.mark.parametrize(
    "size",
    ["-1", "zz", "", "f" * 16, "1" + "0" * 16, pytest.param("0" * 100_000, id="many zeros")],
)
@pytest.mark.parametrize("status", [200, 500])
def test_invalid_chunk_size(request, plan, service, status, size):
    leave_to_linux(request, plan, status)
    head = f"Transfer-Encoding: chunked\r\n\r\n{size}\r\nx\r\n"
    run_with_framing(plan, service, status, head, EndOfRun(), windows_believes=size != "f" * 16)


@pytest.mark.parametrize("length", ["-1", str(2**64), str(2**63 - 1), "many"])
@pytest.mark.parametrize("status", [200, 500])
def test_invalid_content_length(request, plan, service, status, length):
    leave_to_linux(request, plan, status)
    # A plausible length is accepted and the body is then truncated; any other head is rejected.
    fate = EndOfRun() if length == str(2**63 - 1) else BrokenLine()
    run_with_framing(plan, service, status, f"Content-Length: {length}\r\n\r\nx", fate)
