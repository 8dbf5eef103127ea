"""A server scripted byte by byte, to send what no real server would."""

import hashlib
import re
import socket
import ssl
import struct
import threading
import time
from dataclasses import dataclass, field


@dataclass
class Request:
    """A request as received: the bytes of the header block, the lengths of the body and of its chunks."""

    head: bytes
    body: int
    digest: str = ""
    chunks: list = field(default_factory=list)  # as sent, with their size lines

    def values(self, name):
        """Returns the values of a header, in order."""
        found = re.findall(rb"(?im)^" + name.encode() + rb":[ \t]*([^\r\n]*)", self.head)
        return [value.decode("latin-1") for value in found]


class Endless:
    """An endless answer: `begin`, then `piece` until the peer disconnects."""

    def __init__(self, begin, piece):
        self.begin, self.piece = begin, piece


class Stall:
    """Silence from a stage on: "handshake", "body" (not read), "answer", or "middle" (after `begin`)."""

    def __init__(self, stage, begin=b"HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\nok"):
        self.stage = stage
        self.begin = begin


class Slow:
    """An answer in pieces, with a pause before each."""

    def __init__(self, seconds, *pieces):
        self.seconds, self.pieces = seconds, pieces


class Early:
    """An answer sent before the body is read; then the server closes."""

    def __init__(self, answer):
        self.answer = answer


RESET = object()
HANG_UP = object()  # instead of a handshake


class ScriptedServer:
    """Sends the answers in order and repeats the last one. `url` is its address.

    An answer may be a function, which is called when the answer is due.
    """

    def __init__(self, certificate, answers, tls=True, address=("127.0.0.1", 0), late=0):
        self.answers = list(answers)
        self._late = late  # seconds to wait before reading a body
        self.requests = []
        self.connections = 0
        self.sent = 0
        self.last_piece = None  # when the last piece of a slow answer was sent
        self._ended = threading.Event()
        self._open = []
        self._context = None
        if tls:
            self._context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            self._context.load_cert_chain(certificate)
        self._listener = socket.create_server(address)
        self.port = self._listener.getsockname()[1]
        self.url = f"http{'s' if tls else ''}://localhost:{self.port}/log"
        threading.Thread(target=self._accept, daemon=True).start()

    def stop_listening(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()

    def close(self):
        self._ended.set()
        for connection in [self._listener, *self._open]:
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            connection.close()

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            self.connections += 1
            self._open.append(connection)
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, plain):
        connection = plain
        try:
            if self._stalls("handshake"):
                return
            if self.answers[0] is HANG_UP:
                self.answers.pop(0)
                return
            if self._context:
                connection = self._context.wrap_socket(plain, server_side=True)
                self._open.append(connection)
            with connection.makefile("rb") as stream:
                while self._exchange(connection, stream):
                    pass
            if self._context:
                connection.settimeout(1)
                connection.unwrap()
        except (OSError, ValueError):
            pass
        finally:
            connection.close()

    def _stalls(self, stage):
        answer = self.answers[0]
        if isinstance(answer, Stall) and answer.stage == stage:
            self._ended.wait()
            return True
        return False

    def _exchange(self, connection, stream):
        head = b""
        while not head.endswith(b"\r\n\r\n"):
            line = stream.readline()
            if not line:
                return False
            head += line
        request = Request(head, 0)
        answer = self.answers[0]
        if self._stalls("body"):
            return False
        if isinstance(answer, Early):
            self.requests.append(request)
            connection.sendall(answer.answer)
            # Closing with unread data resets the connection after the answer.
            socket.socket(fileno=connection.detach()).close()
            return False
        time.sleep(self._late)
        request.body = self._read_body(request, stream)
        self.requests.append(request)
        if len(self.answers) > 1:
            self.answers.pop(0)
        if callable(answer):
            answer = answer()
        if isinstance(answer, Slow):
            for piece in answer.pieces:
                time.sleep(answer.seconds)
                self.last_piece = time.monotonic()
                connection.sendall(piece)
            self._ended.wait()
            return False
        if isinstance(answer, Stall):
            if answer.stage == "middle":
                connection.sendall(answer.begin)
            self._ended.wait()
            return False
        if answer is RESET:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            socket.socket(fileno=connection.detach()).close()
            return False
        if isinstance(answer, Endless):
            connection.sendall(answer.begin)
            while self.sent < 1 << 30:
                connection.sendall(answer.piece)
                self.sent += len(answer.piece)
            return False
        connection.sendall(answer)
        # The connection stays open only after an answer of known length.
        return re.search(rb"(?i)content-length: 2\r\n|chunked", answer) is not None and not any(
            "close" in value.lower() for value in request.values("connection")
        )

    @staticmethod
    def _read_body(request, stream):
        length = 0
        digest = hashlib.sha256()
        if any("chunked" in value for value in request.values("transfer-encoding")):
            while size := int(line := stream.readline(), 16):
                data = stream.read(size)
                digest.update(data)
                length += len(data)
                request.chunks.append(len(line) + len(data) + len(stream.readline()))
            stream.readline()
        else:
            left = int((request.values("content-length") or ["0"])[0])
            while left and (data := stream.read(min(left, 1 << 20))):
                digest.update(data)
                length += len(data)
                left -= len(data)
        request.digest = digest.hexdigest()
        return length
