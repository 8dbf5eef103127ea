"""Each test shows that a defect of the unpatched library is fixed; README.md names the patches."""

import hashlib
import os
import random
import re
import signal
import socket
import threading
import time

import pytest

from conftest import sanitizer_options
from scripted_server import HANG_UP, RESET, Early, Endless, Slow, Stall

OK = b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"
KIBIBYTE = 1024


def chunked(body):
    return b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + body


def length(*values):
    fields = b"".join(b"Content-Length: " + value + b"\r\n" for value in values)
    return b"HTTP/1.1 200 OK\r\n" + fields + b"\r\nok"


def status(text):
    return b"HTTP/1.1 " + text + b"\r\nContent-Length: 2\r\n\r\nok"


def headers(size):
    """Builds an answer whose status line and headers, including the empty line, have this size."""
    frame = b"HTTP/1.1 200 OK\r\nX: \r\nContent-Length: 2\r\n\r\n"
    return frame.replace(b"X: ", b"X: " + b"a" * (size - len(frame))) + b"ok"


def preloaded(probe):
    """Returns the environment that intercepts system calls with stand_in_front.so."""
    return {
        "LD_PRELOAD": str(probe.path.with_name("stand_in_front.so")),
        # The library is loaded before the sanitizer's.
        **sanitizer_options("verify_asan_link_order=0"),
    }


# Trusted authorities, contexts and options


@pytest.mark.usefixtures("posix")
def test_clients_share_a_context(probe, serve, small, certificate, tmp_path):
    pipe = tmp_path / "bundle"
    os.mkfifo(pipe)
    # The pipe is written only once: a second reader would block forever.
    threading.Thread(target=pipe.write_bytes, args=(certificate.read_bytes(),)).start()
    server = serve(OK)
    lines = probe(
        "post", server.url, small, "clients", "share", "validate", "count=3",
        SSL_CERT_FILE=str(pipe),
    )  # fmt: skip
    assert lines == ["status=200", "body=2"] * 3
    assert server.connections == 3


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize(
    "options, count", [([], 2), (["count=2", "clients", "share"], 4)], ids=["one", "two"]
)
def test_options_are_called_for_every_connection(probe, serve, small, tmp_path, options, count):
    """The name's first address refuses the connection."""
    address = tmp_path / "address"
    address.write_text("127.0.0.2 127.0.0.1")
    lines = probe(
        "post", serve(OK).url, small, "handles", *options,
        **preloaded(probe), RESOLVER_FILE=str(address),
    )  # fmt: skip
    assert lines == ["status=200", "body=2"] * (len(lines) // 2) + [f"handles={count}"]


@pytest.mark.usefixtures("posix")
def test_untrusted_server_is_refused_with_validation(probe, serve, small):
    error, _, what, *_ = probe("post", serve(OK).url, small, "validate", SSL_CERT_FILE="/dev/null")
    assert error == "error=http_exception"
    assert what == "what=Error in SSL handshake"


# Addresses


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize("options, times", [(["share"], 1), ([], 3)], ids=["shared", "alone"])
def test_name_is_resolved_once_with_a_cache(probe, serve, small, tmp_path, options, times):
    address = tmp_path / "address"
    address.write_text("127.0.0.1")
    lines = probe(
        "post", serve(OK).url, small, "clients", "count=3", *options,
        **preloaded(probe), RESOLVER_FILE=str(address),
    )  # fmt: skip
    assert lines == ["status=200", "body=2"] * 3
    assert (tmp_path / "address.asked").read_text() == "localhost\n" * times


@pytest.mark.usefixtures("posix")
def test_server_that_moves_is_found_in_the_same_request(probe, serve, small, tmp_path):
    address = tmp_path / "address"
    address.write_text("127.0.0.1")

    def move():
        servers.append(serve(OK, address=("127.0.0.2", servers[0].port)))
        servers[0].stop_listening()
        address.write_text("127.0.0.2")
        return OK

    servers = [serve(move)]
    lines = probe(
        "post", servers[0].url, small, "clients", "share", "count=3",
        **preloaded(probe), RESOLVER_FILE=str(address),
    )  # fmt: skip
    assert lines == ["status=200", "body=2"] * 3
    assert [len(server.requests) for server in servers] == [1, 2]
    assert (tmp_path / "address.asked").read_text() == "localhost\n" * 2


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize(
    "left_behind", [Stall("handshake"), HANG_UP, Stall("answer"), RESET],
    ids=["silence", "broken handshake", "silence after the body", "reset"],
)  # fmt: skip
def test_server_that_moves_and_is_still_listening_is_found_by_the_next_request(
    probe, serve, small, tmp_path, left_behind
):
    address = tmp_path / "address"
    address.write_text("127.0.0.1")

    def move():
        servers.append(serve(OK, address=("127.0.0.2", servers[0].port)))
        address.write_text("127.0.0.2")
        return OK

    servers = [serve(move, left_behind, OK)]
    answer, body, error, _, _, *later = probe(
        "post", servers[0].url, small, "clients", "share", "count=4", "timeout=1500",
        **preloaded(probe), RESOLVER_FILE=str(address),
    )  # fmt: skip
    assert (answer, body) == ("status=200", "body=2")
    assert error == "error=http_exception"
    assert later == ["status=200", "body=2"] * 2
    assert (tmp_path / "address.asked").read_text() == "localhost\n" * 2


@pytest.mark.usefixtures("posix")
def test_server_that_is_gone_fails_the_request(probe, serve, small, tmp_path):
    address = tmp_path / "address"
    address.write_text("127.0.0.1")

    def go():
        server.stop_listening()
        return OK

    server = serve(go)
    answer, body, error, _, what, *_ = probe(
        "post", server.url, small, "clients", "share", "count=2",
        **preloaded(probe), RESOLVER_FILE=str(address),
    )  # fmt: skip
    assert (answer, body) == ("status=200", "body=2")
    assert error == "error=http_exception"
    assert what == "what=Failed to connect to any resolved endpoint"
    assert (tmp_path / "address.asked").read_text() == "localhost\n" * 2


# Connection header


@pytest.mark.parametrize("sent", ["close", "KeepAlive", "Keep-Alive"])
def test_only_the_callers_connection_header_is_sent(probe, serve, small, sent):
    # Wine would reuse a connection even if it was announced as closing.
    count = 1 if probe.windows and sent == "close" else 2
    server = serve(OK)
    lines = probe("post", server.url, small, f"count={count}", "Connection:" + sent)
    assert lines == ["status=200", "body=2"] * count
    assert [request.values("connection") for request in server.requests] == [[sent]] * count
    if sent == "close":
        assert server.connections == count


# Numbers of an answer


@pytest.mark.parametrize(
    "body, size",
    [
        (b"2\r\nok\r\n0\r\n\r\n", 2),
        (b"2;name=value\r\nok\r\n0\r\n\r\n", 2),
        (b"2  \r\nok\r\n0\r\n\r\n", 2),
        (b"A\r\n0123456789\r\n0\r\n\r\n", 10),
        (b"00000000000000000000002\r\nok\r\n000\r\n\r\n", 2),
        (b"2\r\nok\r\n0\r\nTrailer: x\r\n\r\n", 2),
        (b"".join(b"%x\r\n%s\r\n" % (n, b"z" * n) for n in (1, 65535, 65536, 65537, 200000))
         + b"0\r\n\r\n", 396609),
        (b"0\r\n\r\n", 0),
    ],
    ids=["one", "extension", "padded", "upper case", "zeros", "trailer", "many", "none"],
)  # fmt: skip
def test_chunks_are_read(probe, serve, small, body, size):
    assert probe("post", serve(chunked(body)).url, small) == ["status=200", f"body={size}"]


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize(
    "size_line",
    [b"-1", b"-2", b"-0", b"+2", b"0x2", b"", b"zz", b"2zz", b"2 2", b"1" + b"0" * 16,
     b"1" + b"0" * 15 + b"2", b"f" * 16, b"8" + b"0" * 15],
)  # fmt: skip
def test_invalid_chunk_size_fails_the_request(probe, serve, small, size_line):
    server = serve(chunked(size_line + b"\r\nok\r\n0\r\n\r\n"))
    answer, error, code, what, *_ = probe("post", server.url, small)
    assert answer == "status=200"
    assert (error, code) == ("error=http_exception", "code=0")
    assert what == "what=Invalid chunked response header"


@pytest.mark.usefixtures("posix")
def test_chunk_without_its_line_end_fails_the_request(probe, serve, small):
    *_, what = probe("post", serve(chunked(b"2\r\nokXX0\r\n\r\n")).url, small)
    assert what == "what=Invalid chunked response part"


@pytest.mark.parametrize("fields", [[b"2"], [b"2", b"2"], [b"2, 2"]])
def test_content_length_is_read(probe, serve, small, fields):
    assert probe("post", serve(length(*fields)).url, small) == ["status=200", "body=2"]


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize(
    "fields",
    [[b"-1"], [b"-2"], [b"abc"], [b"2abc"], [b""], [b"0x2"], [b"+2"], [b"9223372036854775808"],
     [b"18446744073709551615"], [b"18446744073709551616"], [b"2", b"3"], [b"2,"]],
)  # fmt: skip
def test_invalid_content_length_fails_the_request(probe, serve, small, fields):
    lines = probe("post", serve(length(*fields)).url, small)
    assert lines == ["error=http_exception", "code=0", "what=Invalid Content-Length header"]


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize(
    "number", [b"abc", b"-200", b"-65336", b"65736", b"2000", b"20", b"200x", b"099"]
)
def test_invalid_status_fails_the_request(probe, serve, small, number):
    lines = probe("post", serve(status(number + b" OK")).url, small)
    assert lines == ["error=http_exception", "code=0", "what=Invalid HTTP status line"]


@pytest.mark.usefixtures("windows")
def test_non_numeric_status_fails_the_request_on_windows(probe, serve, small):
    error, *_ = probe("post", serve(status(b"abc OK")).url, small)
    assert error == "error=http_exception"


# Exceptions in handlers


@pytest.mark.parametrize("how", [[], ["late"]], ids="-".join)
def test_exception_of_a_sink_fails_its_request_alone(probe, serve, how):
    lines = probe("throw", serve(OK).url, *how)
    assert lines == ["error=exception", "what=the sink is full"] * 2


# Bounds


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize(
    "answer",
    [
        headers(64 * KIBIBYTE + 1),
        headers(1000 * KIBIBYTE),
        Endless(b"HTTP/1.1 200 ", b"y" * 65536),
        Endless(b"HTTP/1.1 200 OK\r\nX: ", b"y" * 65536),
        Endless(b"HTTP/1.1 200 OK\r\n", b"X: " + b"y" * 1000 + b"\r\n"),
    ],
    ids=["one byte more", "1 MB", "endless status line", "endless header", "endless headers"],
)
def test_headers_beyond_64_kibibytes_fail_the_request(probe, serve, small, answer):
    server = serve(answer)
    lines = probe("post", server.url, small)
    assert lines == ["error=http_exception", "code=90", "what=HTTP headers exceed 64 KiB"]
    assert server.sent < 64 << 20


@pytest.mark.parametrize("size", [8, 60, 64])
def test_headers_up_to_64_kibibytes_are_read(probe, serve, small, size):
    if probe.windows and size == 64:
        pytest.skip("WinHTTP has its own limit")
    lines = probe("post", serve(headers(size * KIBIBYTE)).url, small)
    assert lines == ["status=200", "body=2"]


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize("digit", [b"0", b"1"])
def test_endless_chunk_size_fails_the_request(probe, serve, small, digit):
    server = serve(Endless(chunked(b""), digit * 65536))
    _, error, code, *_ = probe("post", server.url, small)
    assert (error, code) == ("error=http_exception", "code=90")


# Interim answers


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize(
    "interim",
    [
        b"HTTP/1.1 100 Continue\r\n\r\n",
        b"HTTP/1.1 100 Continue\r\n\r\n" * 3,
        b"HTTP/1.1 103 Early Hints\r\nLink: </a>\r\nContent-Length: 5\r\n\r\n",
        b"HTTP/1.1 102 Processing\r\n\r\nHTTP/1.1 100 Continue\r\n\r\n",
    ],
    ids=["one", "three", "with headers", "different"],
)
def test_interim_answers_are_skipped(probe, serve, small, interim):
    assert probe("post", serve(interim + OK).url, small) == ["status=200", "body=2"]


@pytest.mark.usefixtures("posix")
def test_endless_interim_answers_fail_the_request(probe, serve, small):
    answer = Endless(b"", b"HTTP/1.1 100 Continue\r\n\r\n" * 100)
    lines = probe("post", serve(answer).url, small)
    assert lines == ["error=http_exception", "code=0", "what=Too many interim HTTP answers"]


# Time-outs


@pytest.mark.parametrize("stage", ["handshake", "body", "answer", "middle"])
def test_silence_fails_the_request_in_every_phase(probe, serve, tmp_path, stage):
    if probe.windows and stage == "handshake":
        pytest.skip("Wine does not time out a TLS handshake")
    large = tmp_path / "large.log"
    large.write_bytes(b"x" * (30 << 20))
    begin = time.monotonic()
    lines = probe("post", serve(Stall(stage)).url, large, "timeout=1500")
    assert 1.4 < time.monotonic() - begin < 10
    assert "error=http_exception" in lines
    if not probe.windows:
        assert "code=110" in lines


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize("stage", ["handshake", "answer", "middle"])
def test_silence_fails_the_request_although_nothing_can_wake_the_library(
    probe, serve, small, stage
):
    """Apart from the connection, everything that epoll watches is an anonymous inode."""
    *_, error, code, _ = probe(
        "post", serve(Stall(stage)).url, small, "timeout=1500", limit=20,
        **preloaded(probe), NOT_WATCHED="anon_inode",
    )  # fmt: skip
    assert (error, code) == ("error=http_exception", "code=110")


def test_silence_within_the_body_of_a_refusal_fails_reading_it(probe, serve, small):
    refusal = b"HTTP/1.1 500 Internal Server Error\r\nContent-Length: 20\r\n\r\n"
    server = serve(Stall("middle", refusal + b"the begin"))
    answer, error, code, *_ = probe("post", server.url, small, "timeout=1500")
    assert (answer, error) == ("status=500", "error=http_exception")
    if not probe.windows:
        assert code == "code=110"


SLOW_PIECES = [chunked(b""), b"1\r\na\r\n", b"1\r\nb\r\n", b"1\r\nc\r\n", b"0\r\n\r\n"]


@pytest.mark.usefixtures("posix")
def test_slow_answer_is_read_as_long_as_it_goes_on(probe, serve, small):
    server = serve(Slow(0.8, *SLOW_PIECES))
    begin = time.monotonic()
    assert probe("post", server.url, small, "timeout=3000") == ["status=200", "body=3"]
    assert server.last_piece - begin > 3.9


@pytest.mark.usefixtures("posix")
def test_time_out_counts_from_the_last_piece(probe, serve, small):
    server = serve(Slow(2, *SLOW_PIECES[:2]))
    answer, error, code, *_ = probe("post", server.url, small, "timeout=3000")
    assert answer == "status=200"
    assert (error, code) == ("error=http_exception", "code=110")
    assert 2.9 < time.monotonic() - server.last_piece < 4.5


@pytest.mark.usefixtures("posix")
def test_connection_that_is_not_accepted_times_out(probe, small):
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen(0)
        waiting = [socket.socket() for _ in range(4)]
        for one in waiting:
            one.setblocking(False)
            one.connect_ex(listener.getsockname())
        url = f"https://localhost:{listener.getsockname()[1]}/log"
        error, code, *_ = probe("post", url, small, "timeout=1500")
        assert (error, code) == ("error=http_exception", "code=110")
        for one in waiting:
            one.close()


@pytest.mark.usefixtures("posix")
def test_no_further_address_is_tried_after_the_time_out(probe, small, tmp_path):
    address = tmp_path / "address"
    address.write_text("127.0.0.1 127.0.0.2 127.0.0.3 127.0.0.4")
    with socket.socket() as listener:
        listener.bind(("127.0.0.4", 0))
        listener.listen(0)
        waiting = [socket.socket() for _ in range(4)]
        for one in waiting:
            one.setblocking(False)
            one.connect_ex(listener.getsockname())
        error, code, *_ = probe(
            "post", f"https://localhost:{listener.getsockname()[1]}/log", small, "timeout=500",
            limit=20, **preloaded(probe), RESOLVER_FILE=str(address),
            SLOW_CONNECTS="3", MILLISECONDS="700",
        )  # fmt: skip
        assert (error, code) == ("error=http_exception", "code=110")
        for one in waiting:
            one.close()


@pytest.mark.usefixtures("posix")
def test_name_that_takes_long_to_resolve_times_out(probe, serve, small):
    begin = time.monotonic()
    lines = probe(
        "post", serve(OK).url, small, "timeout=1500", **preloaded(probe), RESOLVER_SECONDS="20"
    )
    assert lines == ["error=http_exception", "code=110", "what=Error resolving address"]
    assert time.monotonic() - begin < 10  # the process does not wait for the system call either


# Failure to create what wakes Asio


@pytest.mark.usefixtures("posix")
def test_what_wakes_the_library_need_not_be_watched(probe, serve, small):
    lines = probe(
        "post", serve(OK).url, small, "count=3", limit=20,
        **preloaded(probe), NOT_WATCHED="eventfd",
    )  # fmt: skip
    assert lines == ["status=200", "body=2"] * 3


# Bodies


@pytest.mark.parametrize("size", [0, 1, 65524, 65525, 65536, 1_000_000])
def test_body_arrives_byte_for_byte(probe, serve, tmp_path, size):
    file = tmp_path / "file.log"
    file.write_bytes(random.Random(size).randbytes(size))
    server = serve(OK)
    assert probe("post", server.url, file) == ["status=200", "body=2"]
    (request,) = server.requests
    assert (request.body, request.digest) == (size, hashlib.sha256(file.read_bytes()).hexdigest())


@pytest.mark.usefixtures("posix")
def test_chunks_fit_four_tls_records(probe, serve, tmp_path):
    file = tmp_path / "file.log"
    file.write_bytes(b"x" * 300_000)
    server = serve(OK)
    assert probe("post", server.url, file) == ["status=200", "body=2"]
    (request,) = server.requests
    assert 4 * 16384 - 16 < max(request.chunks) <= 4 * 16384


@pytest.mark.parametrize("tls", [True, False])
def test_body_that_is_read_late_arrives_byte_for_byte(probe, serve, tmp_path, tls):
    file = tmp_path / "file.log"
    file.write_bytes(random.Random(1).randbytes(12_000_000))  # more than the socket buffers hold
    server = serve(OK, tls=tls, late=1)
    assert probe("post", server.url, file) == ["status=200", "body=2"]
    (request,) = server.requests
    assert request.digest == hashlib.sha256(file.read_bytes()).hexdigest()


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize("failing", [1, 3, 8])
def test_read_error_fails_the_request(probe, serve, tmp_path, failing):
    file = tmp_path / "file.log"
    file.write_bytes(b"x" * (8 * 65536))
    server = serve(OK)
    error, code, *_, answer, body = probe(
        "post", server.url, file, "count=2", **preloaded(probe), FAILING_READ=str(failing)
    )
    assert (error, code) == ("error=system_error", "code=5")
    assert (answer, body) == ("status=200", "body=2")
    # Only the second body was complete.
    assert [request.body for request in server.requests] == [8 * 65536]


def short_reads(probe, **settings):
    """Returns the environment for such reads; on Windows the probe itself implements them."""
    settings = {name: str(value) for name, value in settings.items()}
    return settings if probe.windows else {**preloaded(probe), **settings}


@pytest.mark.parametrize("size, most", [(400, 1), (70_000, 1), (300_000, 100), (300_000, 65523)])
def test_body_of_short_reads_arrives_whole(probe, serve, tmp_path, size, most):
    file = tmp_path / "file.log"
    file.write_bytes(random.Random(size).randbytes(size))
    server = serve(OK)
    lines = probe("post", server.url, file, **short_reads(probe, SHORT_READS=most))
    assert lines == ["status=200", "body=2"]
    (request,) = server.requests
    assert request.digest == hashlib.sha256(file.read_bytes()).hexdigest()


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize("number", [1, 2, 5])
def test_body_with_one_short_read_arrives_whole(probe, serve, tmp_path, number):
    file = tmp_path / "file.log"
    file.write_bytes(random.Random(1).randbytes(300_000))
    server = serve(OK)
    lines = probe(
        "post", server.url, file, **short_reads(probe, SHORT_READS=1000, SHORT_READ=number)
    )
    assert lines == ["status=200", "body=2"]
    (request,) = server.requests
    assert request.digest == hashlib.sha256(file.read_bytes()).hexdigest()


@pytest.mark.usefixtures("posix")
def test_interrupted_reads_are_repeated(probe, serve, tmp_path):
    file = tmp_path / "file.log"
    file.write_bytes(random.Random(1).randbytes(300_000))
    server = serve(OK)
    lines = probe("post", server.url, file, **short_reads(probe, INTERRUPTED_READS=2))
    assert lines == ["status=200", "body=2"]
    (request,) = server.requests
    assert request.digest == hashlib.sha256(file.read_bytes()).hexdigest()


@pytest.mark.usefixtures("posix")
def test_read_error_after_a_short_read_fails_the_request(probe, serve, tmp_path):
    file = tmp_path / "file.log"
    file.write_bytes(b"x" * 300_000)
    server = serve(OK)
    error, code, *_ = probe(
        "post", server.url, file, **short_reads(probe, SHORT_READS=1000, FAILING_READ=100)
    )
    assert (error, code) == ("error=system_error", "code=5")
    assert not server.requests


@pytest.mark.parametrize("size", [0, 10, 600, 200_000])
def test_file_that_was_read_to_its_end_can_be_read_again(probe, tmp_path, size):
    file = tmp_path / "file.log"
    file.write_bytes(b"x" * size)
    assert probe("rewind", file) == [f"read={size}"] * 2


@pytest.mark.parametrize("sizes", [[512], [70000], [10], [70000, 10, 600, 3, 5000], [3, 70000]])
def test_blocks_of_every_size_give_the_files_bytes(probe, tmp_path, sizes):
    file = tmp_path / "file.log"
    file.write_bytes(random.Random(1).randbytes(200_003 if sizes != [10] else 4001))
    assert probe("blocks", file, *sizes) == []
    assert (tmp_path / "file.log.blocks").read_bytes() == file.read_bytes()


# Large bodies


@pytest.mark.parametrize("size", [(1 << 32) - 1, 1 << 32, (1 << 32) + 1])
def test_body_of_4_gibibytes_is_sent_whole(request, probe, serve, tmp_path, size):
    if not request.config.getoption("--large"):
        pytest.skip("requires --large")
    large = tmp_path / "large.log"
    with large.open("wb") as file:
        file.truncate(size)
    server = serve(OK, tls=False)
    assert probe("post", server.url, large, limit=900) == ["status=200", "body=2"]
    (sent,) = server.requests
    assert sent.body == size
    if probe.windows:
        assert sent.values("content-length") == [str(size)]


# Process exit


@pytest.mark.parametrize(
    "answer", [OK, RESET, Early(status(b"401 No"))], ids=["ok", "reset", "early"]
)
@pytest.mark.parametrize(
    "how", [[], ["open"], ["static"], ["open", "abandon"], ["static", "abandon"]], ids="-".join
)
def test_process_ends_right_after_a_request(request, probe, serve, small, answer, how):
    if probe.windows and "abandon" in how:
        pytest.skip("an active request is handled by WinHTTP's own threads")
    server = serve(answer)
    runs = request.config.getoption("--leave-runs")
    for _ in range(runs // 10 if probe.windows else runs):
        probe("leave", server.url, small, *how, limit=20)


def test_tasks_are_waited_for_without_kernel_objects(probe):
    handles, *results = probe("tasks", 1000, limit=20)
    assert int(handles.removeprefix("handles=")) < 20  # the pool's own, created on start
    assert results == ["sum=1000", "unset=0", "set=11", "reset=0", "late=1"]


# Files


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize(
    "kind, code",
    [("directory", 21), ("pipe", 95), ("socket", 6), ("device", 95), ("missing", 2),
     ("link to directory", 21), ("link to pipe", 95), ("link to missing", 2), ("loop", 40)],
)  # fmt: skip
def test_only_regular_files_can_be_opened(probe, tmp_path, kind, code):
    path = tmp_path / "file"
    target = kind.removeprefix("link to ")
    if target == "directory":
        path.mkdir()
    elif target == "pipe":
        os.mkfifo(path)
    elif target == "socket":
        with socket.socket(socket.AF_UNIX) as one:
            one.bind(str(path))
    elif target == "device":
        path.symlink_to("/dev/zero")
    elif target == "loop":
        path.symlink_to(path)
    if target != kind:
        (tmp_path / "link").symlink_to(path)
        path = tmp_path / "link"
    error, number, *_ = probe("open", path, limit=10)
    assert (error, number) == ("error=system_error", f"code={code}")


@pytest.mark.parametrize("linked", [False, True])
def test_regular_file_opens(probe, small, tmp_path, linked):
    path = small
    if linked:
        path = tmp_path / "link"
        path.symlink_to(small)
    assert probe("open", path) == ["read=10"]


@pytest.mark.usefixtures("posix")
def test_file_under_a_lease_opens(probe, small):
    import fcntl  # not available on Windows

    with small.open("rb+") as file:
        try:
            fcntl.fcntl(file, fcntl.F_SETLEASE, fcntl.F_WRLCK)
        except OSError as error:
            pytest.skip(f"no leases on this file system: {error}")
        given_back = []

        def give_back(*_):
            given_back.append(fcntl.fcntl(file, fcntl.F_SETLEASE, fcntl.F_UNLCK))

        before = signal.signal(signal.SIGIO, give_back)
        try:
            assert probe("open", small, limit=20) == ["read=10"]
        finally:
            signal.signal(signal.SIGIO, before)
        assert given_back


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize(
    "settings", [{"BUSY_FILE": "{}"}, {"INTERRUPTED_OPENS": "2"}], ids=["busy", "interrupted"]
)
def test_open_is_repeated(probe, small, settings):
    settings = {name: value.format(small) for name, value in settings.items()}
    assert probe("open", small, **preloaded(probe), **settings) == ["read=10"]


# Refusals


@pytest.mark.usefixtures("posix")
@pytest.mark.parametrize("tls", [True, False])
@pytest.mark.parametrize(
    "answer, first",
    [
        (b"401 No", "status=401"),
        (b"413 No", "status=413"),
        (b"200 OK", "error=http_exception"),
    ],
)
def test_answer_before_the_body_counts_when_it_refuses(probe, serve, tmp_path, tls, answer, first):
    large = tmp_path / "large.log"
    large.write_bytes(b"x" * (30 << 20))
    server = serve(Early(status(answer)), tls=tls)
    outcome, *details = probe("post", server.url, large)
    assert outcome == first
    if first.startswith("error"):
        _, what, *_ = details
        assert re.match("what=Failed to write request", what)
