#!/usr/bin/python3
"""A tenant's log service on a loopback port: HTTPS, records every byte, scripted answers.

In a test:

    with LogService(identity, accounts=[Account("alice", "key", "session")]) as service:
        service.answer_with(Answer(500), Answer(drop=Stage.BEFORE_ANSWER))
        ...                                  # start the client with service.tenant
        service.requests[0].head             # the raw bytes of the first request's head

Answers come from the queue first, then from `decide`, then from the service's own check of path, method
and credentials. Run as a program (`--help`), it serves until it is stopped.
"""

import argparse
import collections
import contextlib
import enum
import json
import os
import signal
import socket
import ssl
import struct
import sys
import tempfile
import threading
import time
from dataclasses import dataclass
from pathlib import Path

SERVICE_PATH = "/idp/api/keyward/v1/log/sso"
ACCEPTED = (200, 202)

_REASONS = {
    100: "Continue", 102: "Processing", 103: "Early Hints", 200: "OK", 201: "Created",
    202: "Accepted", 204: "No Content", 301: "Moved Permanently", 302: "Found", 303: "See Other",
    307: "Temporary Redirect", 308: "Permanent Redirect", 400: "Bad Request", 401: "Unauthorized",
    403: "Forbidden", 404: "Not Found", 405: "Method Not Allowed", 500: "Internal Server Error",
    503: "Service Unavailable",
}  # fmt: skip
_LONGEST_HEAD = 256 * 1024
_SECONDS_TO_CONNECT = 0.2
_SECONDS_OF_SILENCE = 60


class Stage(enum.Enum):
    """Where a connection can be dropped; the first three come before a request is known."""

    ACCEPT = "accept"
    HANDSHAKE = "in handshake"
    AFTER_HANDSHAKE = "after handshake"
    REQUEST_BODY = "after drop_after bytes of the request's body"
    BEFORE_ANSWER = "before answer"
    ANSWER_HEAD = "after drop_after bytes of the answer's head"
    ANSWER_BODY = "after drop_after bytes of the answer's body"


_BEFORE_REQUEST = (Stage.ACCEPT, Stage.HANDSHAKE, Stage.AFTER_HANDSHAKE)


class Hold:
    """Delays an answer: `reached` is set when the request has arrived, setting `release` sends the answer."""

    def __init__(self):
        self.reached = threading.Event()
        self.release = threading.Event()


@dataclass
class Answer:
    """The service's reaction to one request (or, if dropped early, to one connection)."""

    status: int = 200
    body: object = b""  # bytes, or a possibly endless iterable of bytes, which is sent in chunks
    headers: tuple = ()  # pairs; a framing header here replaces the service's own
    reason: str | None = None
    delay: float = 0.0  # seconds before the answer
    hold: Hold | None = None
    body_hold: Hold | None = None  # pauses reading the request's body after its first bytes
    early: bool = False  # send the answer before reading the request's body
    interim: tuple = ()  # status codes of interim answers, sent first
    raw: object = None  # bytes or an iterable: the complete answer with its head; ends the connection
    drop: Stage | None = None
    drop_after: int = 0
    reset: bool = False  # drop with a reset instead of an orderly close

    @property
    def before_request(self):
        return self.drop in _BEFORE_REQUEST


@dataclass(frozen=True)
class Account:
    """Credentials that the service knows; `refused` ones are answered with 401."""

    name: str
    apikey: str
    idp_session: str
    refused: bool = False


@dataclass
class Connection:
    """An accepted TCP connection; `error` is the reason if it ended early."""

    number: int
    tls_version: str | None = None
    cipher: str | None = None
    resumed: bool = False
    client_certificate: bytes | None = None  # DER
    error: str | None = None
    requests: int = 0


@dataclass
class Request:
    """A request as received. `head` holds its raw bytes, including the final empty line."""

    number: int
    connection: Connection
    time: float
    head: bytes
    method: str
    target: str
    headers: list  # pairs in order, names as written
    framing: str = "none"  # "length", "chunked" or "none"
    body: bytes = b""  # decoded
    account: str | None = None
    status: int | None = None  # None if dropped without an answer

    def header(self, name):
        """Returns all values of a header, in order."""
        return [value for key, value in self.headers if key.lower() == name.lower()]


class _Dropped(Exception):
    """The script ends this connection."""

    def __init__(self, reset):
        super().__init__("dropped by the script")
        self.reset = reset


class _Reader:
    """Buffered reading from a socket; raises EOFError if the peer closes too early."""

    def __init__(self, connection):
        self._connection = connection
        self._buffer = bytearray()

    def _fill(self):
        more = self._connection.recv(65536)
        if not more:
            raise EOFError("the peer ended the connection")
        self._buffer += more

    def _take(self, count):
        taken = bytes(self._buffer[:count])
        del self._buffer[:count]
        return taken

    def until(self, mark):
        """Returns the bytes up to and including the mark."""
        searched = 0
        while (at := self._buffer.find(mark, searched)) < 0:
            if len(self._buffer) > _LONGEST_HEAD:
                raise ValueError("the request's head has no end")
            searched = max(0, len(self._buffer) - len(mark))
            self._fill()
        return self._take(at + len(mark))

    def some(self, most):
        """Returns between 1 and `most` bytes."""
        if not self._buffer:
            self._fill()
        return self._take(most)


def _parse_head(head):
    lines = head.decode("latin-1").split("\r\n")
    method, target, _ = (lines[0].split(" ") + ["", ""])[:3]
    headers = []
    for line in lines[1:]:
        if line:
            name, _, value = line.partition(":")
            headers.append((name, value.strip()))
    return method, target, headers


class LogService:
    """The service, a context manager. All recorded data may be read while it runs.

    `identity` and `client_authority` (PEM bytes) come from `certificates`. With a client authority, the
    service requests a client certificate; with `require_client_certificate`, it refuses connections
    without one.
    """

    def __init__(
        self,
        identity,
        *,
        accounts=(),
        store=None,
        port=0,
        minimum=ssl.TLSVersion.TLSv1_2,
        maximum=ssl.TLSVersion.TLSv1_3,
        client_authority=None,
        require_client_certificate=False,
        on_request=None,
        keep_bodies=True,
    ):
        self.identity = identity
        self.accounts = list(accounts)
        self.store = Path(store) if store else None
        self.decide = None  # maps a request to an Answer, or to None for the default
        self.connections = []
        self.requests = []
        self.on_request = on_request  # called with each request before its answer is sent
        self.keep_bodies = keep_bodies
        self._queue = collections.deque()
        self._changed = threading.Condition()
        self._stopping = threading.Event()
        self._threads = []
        self._sockets = set()
        self._stored = collections.Counter()
        self._context = self._make_context(identity, minimum, maximum, client_authority)
        if require_client_certificate:
            self._context.verify_mode = ssl.CERT_REQUIRED
        self._versions = minimum, maximum
        self._listener = socket.create_server(("127.0.0.1", port), backlog=64)
        self.port = self._listener.getsockname()[1]

    @staticmethod
    def _make_context(identity, minimum, maximum, client_authority):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        if maximum < ssl.TLSVersion.TLSv1_2:
            # The old versions need signature algorithms that the library disables by default.
            context.set_ciphers("ALL:@SECLEVEL=0")
        context.minimum_version = minimum
        context.maximum_version = maximum
        # The interface only accepts file names.
        with _private_file(identity.pem) as path:
            context.load_cert_chain(path)
        if client_authority:
            context.verify_mode = ssl.CERT_OPTIONAL
            context.load_verify_locations(cadata=client_authority.decode("ascii"))
        return context

    @property
    def tenant(self):
        """Host and port in the form of the client's argument."""
        return f"localhost:{self.port}"

    def __enter__(self):
        self._start(self._accept_connections)
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        """Closes all connections and waits for their threads."""
        self._stopping.set()
        # close() alone would not wake the accepting thread.
        self._listener.shutdown(socket.SHUT_RDWR)
        with self._changed:
            for one in self._sockets:
                try:
                    one.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass  # Already closed.
        for thread in self._threads:
            thread.join()
        self._listener.close()

    def answer_with(self, *answers):
        """Queues answers; None stands for the service's own check."""
        with self._changed:
            self._queue.extend(answers)

    def forget_answers(self):
        """Empties the queue."""
        with self._changed:
            self._queue.clear()

    def forget_requests(self):
        """Restarts the count and forgets earlier requests."""
        with self._changed:
            self.requests.clear()
            self.connections.clear()

    def present(self, identity):
        """Uses another certificate for new connections, and stops requesting client certificates."""
        self.identity = identity
        self._context = self._make_context(identity, *self._versions, None)

    def wait_for_requests(self, count, seconds=30):
        """Waits for this number of requests; returns False on time-out."""
        with self._changed:
            return self._changed.wait_for(lambda: len(self.requests) >= count, seconds)

    def bodies(self, status=ACCEPTED):
        """Returns the bodies of the requests that were answered with one of these statuses."""
        return [one.body for one in self.requests if one.status in status]

    def _start(self, target, *arguments):
        thread = threading.Thread(target=target, args=arguments, daemon=True)
        self._threads.append(thread)
        thread.start()

    def _accept_connections(self):
        while not self._stopping.is_set():
            try:
                raw, _ = self._listener.accept()
            except OSError:
                return
            connection = Connection(len(self.connections) + 1)
            with self._changed:
                self.connections.append(connection)
            self._start(self._serve_connection, raw, connection)

    def _serve_connection(self, raw, connection):
        raw.settimeout(_SECONDS_OF_SILENCE)
        answer = self._take_early_answer()
        try:
            secure = self._secure(raw, connection, answer)
        except (OSError, EOFError, _Dropped) as error:
            connection.error = str(error) or type(error).__name__
            _end(raw, reset=isinstance(error, _Dropped) and error.reset)
            return
        with self._changed:
            self._sockets.add(secure)
        reset = False
        try:
            self._serve_requests(secure, connection)
            _say_goodbye(secure)
        except _Dropped as error:
            connection.error, reset = str(error), error.reset
        except (OSError, EOFError, ValueError) as error:
            connection.error = str(error) or type(error).__name__
        finally:
            with self._changed:
                self._sockets.discard(secure)
            _end(secure, reset=reset)

    def _secure(self, raw, connection, answer):
        stage = answer.drop if answer else None
        if stage is Stage.ACCEPT:
            if answer.reset:
                # The client would see a reset during its connect as a failure to connect, and may then retry.
                self._stopping.wait(_SECONDS_TO_CONNECT)
            raise _Dropped(answer.reset)
        if stage is Stage.HANDSHAKE:
            raw.recv(16)
            raise _Dropped(answer.reset)
        raw.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        secure = self._context.wrap_socket(raw, server_side=True)
        connection.tls_version = secure.version()
        connection.cipher = secure.cipher()[0]
        connection.resumed = bool(secure.session_reused)
        connection.client_certificate = secure.getpeercert(binary_form=True)
        if stage is Stage.AFTER_HANDSHAKE:
            _end(secure, reset=answer.reset)
            raise _Dropped(answer.reset)
        return secure

    def _serve_requests(self, secure, connection):
        reader = _Reader(secure)
        while not self._stopping.is_set():
            try:
                head = reader.until(b"\r\n\r\n")
            except EOFError:
                if connection.requests:
                    return
                raise
            connection.requests += 1
            method, target, headers = _parse_head(head)
            request = Request(0, connection, time.time(), head, method, target, headers)
            answer = self._take_answer()
            if answer and answer.early:
                self._record(request)
                goes_on = self._answer(secure, request, answer)
                self._read_body(secure, reader, request, answer)
                if goes_on:
                    continue
                return
            self._read_body(secure, reader, request, answer)
            self._record(request)
            answer = answer or (self.decide and self.decide(request)) or self._judge(request)
            if not self._answer(secure, request, answer):
                return

    def _read_body(self, secure, reader, request, answer):
        if request.header("Expect"):
            secure.sendall(_head(100))
        limit = None
        if answer and answer.drop is Stage.REQUEST_BODY:
            limit = answer.drop_after
        body = bytearray()
        for piece in _body_pieces(reader, request):
            body += piece
            if answer and answer.body_hold:
                self._wait_for(answer.body_hold)
            if limit is not None and len(body) >= limit:
                raise _Dropped(answer.reset)
        request.body = bytes(body)
        if limit is not None:
            raise _Dropped(answer.reset)

    def _record(self, request):
        account = self._find_account(request)
        request.account = account.name if account else None
        with self._changed:
            self.requests.append(request)
            request.number = len(self.requests)
            self._changed.notify_all()

    def _take_early_answer(self):
        with self._changed:
            if self._queue and self._queue[0] and self._queue[0].before_request:
                return self._queue.popleft()
        return None

    def _take_answer(self):
        with self._changed:
            return self._queue.popleft() if self._queue else None

    def _find_account(self, request):
        bearer = request.header("Authorization")
        cookie = request.header("Cookie")
        for account in self.accounts:
            if bearer == [f"Bearer {account.apikey}"]:
                if cookie == [f"idp.session={account.idp_session}"]:
                    return account
        return None

    def _judge(self, request):
        if request.target != SERVICE_PATH:
            return Answer(404, b"no such resource", (("Content-Type", "text/plain"),))
        if request.method != "POST":
            headers = (("Content-Type", "text/plain"), ("Allow", "POST"))
            return Answer(405, b"only POST is allowed", headers)
        account = self._find_account(request)
        if account is None or account.refused:
            return Answer(401, b"credentials refused", (("Content-Type", "text/plain"),))
        return Answer(200)

    def _wait_for(self, hold):
        hold.reached.set()
        while not hold.release.wait(0.05) and not self._stopping.is_set():
            pass

    def _answer(self, secure, request, answer):
        """Sends the answer; returns whether the connection stays open."""
        if answer.hold:
            self._wait_for(answer.hold)
        if answer.delay:
            self._stopping.wait(answer.delay)
        if answer.drop is Stage.BEFORE_ANSWER:
            raise _Dropped(answer.reset)
        if answer.raw is not None:
            self._finish(request, None)
            if isinstance(answer.raw, bytes):
                _keep_for_end(secure)
            for piece in _pieces(answer.raw):
                secure.sendall(piece)
                if self._stopping.is_set():
                    break
            return False
        for status in answer.interim:
            secure.sendall(_head(status))
        self._send_answer(secure, request, answer)
        return "close" not in ",".join(request.header("Connection")).lower()

    def _send_answer(self, secure, request, answer):
        closing = "close" in ",".join(request.header("Connection")).lower()
        head, chunked = _answer_head(answer, closing)
        if answer.drop is Stage.ANSWER_HEAD:
            secure.sendall(head[: answer.drop_after])
            raise _Dropped(answer.reset)
        # Record first: once the client has the answer it may end, and a test may look at the record.
        self._finish(request, answer.status)
        pending, sent = head, 0
        for piece in _pieces(answer.body):
            if answer.drop is Stage.ANSWER_BODY and sent + len(piece) >= answer.drop_after:
                secure.sendall(pending + _framed(piece[: answer.drop_after - sent], chunked))
                raise _Dropped(answer.reset)
            secure.sendall(pending + _framed(piece, chunked))
            pending, sent = b"", sent + len(piece)
            if self._stopping.is_set():
                return
        secure.sendall(pending + (b"0\r\n\r\n" if chunked else b""))

    def _finish(self, request, status):
        request.status = status
        if self.store and status in ACCEPTED and request.account:
            self._stored[request.account] += 1
            folder = self.store / request.account
            folder.mkdir(parents=True, exist_ok=True)
            number = self._stored[request.account]
            (folder / f"{number:04d}.log").write_bytes(request.body)
        if self.on_request:
            self.on_request(request)
        if not self.keep_bodies:
            request.body = None


def _keep_for_end(connection):
    """Holds back what is sent from now on until the connection closes, so that the client cannot reuse a
    connection that is about to close. Without TCP_CORK, a short window remains."""
    if hasattr(socket, "TCP_CORK"):
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 1)


@contextlib.contextmanager
def _private_file(content):
    """Yields the name of a temporary file that only this user can read."""
    descriptor, name = tempfile.mkstemp()
    try:
        with os.fdopen(descriptor, "wb") as file:
            file.write(content)
        yield name
    finally:
        os.unlink(name)


def _body_pieces(reader, request):
    """Yields the decoded body in pieces; sets the request's framing."""
    if "chunked" in ",".join(request.header("Transfer-Encoding")).lower():
        request.framing = "chunked"
        while size := int(reader.until(b"\r\n").split(b";")[0], 16):
            yield from _counted(reader, size)
            reader.until(b"\r\n")
        while reader.until(b"\r\n") != b"\r\n":
            pass  # Skip trailers.
    elif request.header("Content-Length"):
        request.framing = "length"
        yield from _counted(reader, int(request.header("Content-Length")[0]))


def _counted(reader, size):
    while size:
        piece = reader.some(size)
        size -= len(piece)
        yield piece


def _head(status, headers=(), reason=None):
    reason = _REASONS.get(status, "") if reason is None else reason
    lines = [f"HTTP/1.1 {status} {reason}"]
    lines += [f"{name}: {value}" for name, value in headers]
    return ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1")


def _answer_head(answer, closing):
    headers = list(answer.headers)
    names = {name.lower() for name, _ in headers}
    chunked = False
    if not names & {"content-length", "transfer-encoding"} and answer.status not in (204, 304):
        if isinstance(answer.body, (bytes, bytearray)):
            headers.append(("Content-Length", str(len(answer.body))))
        else:
            headers.append(("Transfer-Encoding", "chunked"))
            chunked = True
    if closing and "connection" not in names:
        headers.append(("Connection", "close"))
    return _head(answer.status, headers, answer.reason), chunked


def _pieces(content):
    return [content] if isinstance(content, (bytes, bytearray)) else content


def _framed(piece, chunked):
    if not chunked:
        return piece
    return b"%x\r\n%s\r\n" % (len(piece), piece) if piece else b""


def _say_goodbye(secure):
    """Closes the connection in order, so that the client can finish reading and sees no failure."""
    try:
        secure.settimeout(0)
        with contextlib.suppress(ssl.SSLWantReadError):
            secure.unwrap()
        secure.shutdown(socket.SHUT_WR)
        secure.settimeout(2)
        while secure.recv(65536):
            pass
    except (OSError, ValueError):
        pass  # The client has already closed.


def _end(connection, reset):
    try:
        if reset:
            linger = struct.pack("ii", 1, 0)
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger)
        connection.close()
    except OSError:
        pass  # Already closed.


def describe(request):
    """Describes a request as a dictionary, without its secrets."""
    return {
        "number": request.number,
        "connection": request.connection.number,
        "tls": request.connection.tls_version,
        "method": request.method,
        "path": request.target,
        "account": request.account,
        "bytes": len(request.body),
        "status": request.status,
    }


def _load_accounts(path):
    return [Account(**entry) for entry in json.loads(Path(path).read_text(encoding="utf-8"))]


def _print_request(request):
    print(json.dumps(describe(request)), flush=True)


def main(arguments=None):
    parser = argparse.ArgumentParser(description="A tenant's log service on a loopback port.")
    parser.add_argument("--port", type=int, default=0, help="0 chooses a free one")
    parser.add_argument("--store", help="folder for accepted bodies: <store>/<account>/NNNN.log")
    parser.add_argument(
        "--accounts", help='JSON: [{"name": .., "apikey": .., "idp_session": .., "refused": ..}]'
    )
    parser.add_argument("--ready-file", help="JSON with the port, written when it is open")
    options = parser.parse_args(arguments)

    import certificates  # Slow to import, and needed only here.

    stop = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: stop.set())
    identity = certificates.Authority.create("Log service").issue(
        "localhost",
        names=certificates.LOOPBACK_NAMES,
        usage=certificates.ExtendedKeyUsageOID.SERVER_AUTH,
    )
    accounts = _load_accounts(options.accounts) if options.accounts else ()
    with LogService(
        identity,
        accounts=accounts,
        store=options.store,
        port=options.port,
        on_request=_print_request,
    ) as service:
        if options.ready_file:
            ready = Path(options.ready_file)
            started = ready.with_name(ready.name + ".new")
            started.write_text(json.dumps({"port": service.port, "tenant": service.tenant}))
            started.rename(ready)
        stop.wait()
    return 0


if __name__ == "__main__":
    sys.exit(main())
