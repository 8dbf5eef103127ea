"""The ways in which a system call can fail or return less than requested.

All of them occur in practice: they are in the manual pages, or a file system in use behaves like that. What
cannot happen is omitted, such as a short send on a socket that stays writable, which edge-triggered
polling relies on.
"""

import errno
import fnmatch
import socket
from dataclasses import dataclass

# The kinds of misbehaviour, by which cases are counted.
FAILS = "fails"
DONE = "succeeds, but reports failure"
SHORT = "short result"
INTERRUPTED = "interrupted"
AGAIN = "must be repeated"
UNSUPPORTED = "not supported"


@dataclass(frozen=True)
class Call:
    """A call of a recorded run; `number` counts the calls of its function on its object from 1."""

    function: str
    object: str
    detail: str
    number: int

    @property
    def place(self):
        """A pattern for the objects on the same file system or connection."""
        top, *below = self.object.split(" > ")[0].split("/")
        if top == "KydLog" and len(below) > 1:
            # Only for folders can fsync be unsupported.
            return f"{top}/{below[0]}/*" + ("/" if self.function == "fsync" and not below[-1] else "")
        return self.object if top in ("", "KydLog") or not below else f"{top}/*"

    @property
    def kind(self):
        return self.function, self.detail, self.place


@dataclass(frozen=True)
class Way:
    """A way to misbehave, in the terms of the preloaded library.

    A harmless one must not affect the outcome of the run. One that lasts applies to all later calls of the
    kind as well. `then_fails` is the errno of the next call.
    """

    kind: str
    action: str
    number: int = 0
    harmless: bool = False
    lasts: bool = False
    then_fails: int = 0

    def __str__(self):
        name = "" if not self.number else " " + errno.errorcode.get(self.number, str(self.number))
        after = f", then {errno.errorcode[self.then_fails]}" if self.then_fails else ""
        return f"{self.action}{name}{after}{' from then on' if self.lasts else ''}"


def _ways(kind, action, numbers, *, harmless=False, lasting=True):
    found = []
    for number in numbers:
        found.append(Way(kind, action, number, harmless))
        if lasting:
            found.append(Way(kind, action, number, harmless, lasts=True))
    return found


def _fails(*names):
    return _ways(FAILS, "fail", [getattr(errno, name) for name in names])


def _done(*names):
    return _ways(DONE, "done", [getattr(errno, name) for name in names])


def _unsupported(*names, harmless=True):
    return _ways(UNSUPPORTED, "fail", [getattr(errno, name) for name in names], harmless=harmless)


_INTERRUPTED = _ways(INTERRUPTED, "fail", [errno.EINTR], harmless=True, lasting=False)
# Calls to a server, whose answer is no longer awaited.
_INTERRUPTED_LATE = _ways(INTERRUPTED, "done", [errno.EINTR], harmless=True, lasting=False)
# Another process holds a lease on the file and has been asked to release it.
_LEASED = _ways(AGAIN, "fail", [errno.EAGAIN], harmless=True, lasting=False)


def _short(*actions, then):
    return [
        *(way for action in actions for way in _ways(SHORT, action, [0], harmless=True)),
        *(Way(SHORT, "one", then_fails=getattr(errno, name)) for name in then),
    ]


# Possible even within one apparent file system: bind mounts, layers, project quotas.
_ELSEWHERE = _ways(UNSUPPORTED, "fail", [errno.EXDEV], harmless=True, lasting=False)


# The connection is broken from then on, in both directions.
def _breaks(*names):
    return _ways(FAILS, "break", [getattr(errno, name) for name in names], lasting=False)


_MOVING = ("EACCES", "EBUSY", "EIO", "ENOSPC", "EROFS", "ESTALE")

WAYS = {
    ("open", "read"): [*_fails("EACCES", "EIO", "EMFILE", "ENOENT", "ESTALE"), *_INTERRUPTED],
    ("open", "create"): [
        *_fails("EACCES", "EDQUOT", "EIO", "ENOSPC", "EROFS", "ESTALE"), *_done("EIO"), *_INTERRUPTED,
        *_INTERRUPTED_LATE,
    ],
    ("open", "exclusive"): [
        *_fails("EACCES", "EDQUOT", "EIO", "ENOSPC", "EROFS"), *_done("EIO"), *_INTERRUPTED,
        *_INTERRUPTED_LATE,
    ],
    ("open", "folder"): [*_fails("EACCES", "EIO", "EMFILE", "ESTALE"), *_INTERRUPTED],
    "read": [
        *_fails("EIO", "ESTALE"), *_INTERRUPTED, *_short("one", "half", then=("EIO", "ESTALE")),
    ],
    "write": [
        *_fails("EDQUOT", "EFBIG", "EIO", "ENOSPC", "ESTALE"), *_done("EIO"), *_INTERRUPTED,
        *_short("one", "half", then=("EIO", "ENOSPC")),
    ],
    "lseek": _fails("EINVAL", "EIO", "ESTALE"),
    "fstat": [*_fails("EIO", "ENOMEM", "ESTALE"), *_INTERRUPTED],
    "stat": [*_fails("EACCES", "EIO", "ENOENT", "ESTALE"), *_INTERRUPTED],
    "flock": [
        *_fails("EAGAIN"), *_INTERRUPTED, *_unsupported("EBADF", "ENOLCK", "ENOSYS", "EOPNOTSUPP"),
    ],
    "fsync": [*_fails("EDQUOT", "EIO", "ENOSPC"), *_done("EIO"), *_INTERRUPTED],
    "close": _done("EDQUOT", "EINTR", "EIO", "ENOSPC"),
    "fchmod": [*_fails("EIO"), *_unsupported("ENOSYS", "EOPNOTSUPP", "EPERM")],
    "fchown": [*_unsupported("EINVAL", "ENOSYS", "EOPNOTSUPP", "EPERM"), *_fails("EIO")],
    "futimens": [*_fails("EIO"), *_unsupported("EACCES", "ENOSYS", "EPERM")],
    "rename": [*_fails(*_MOVING), *_done("EIO", "ENOENT", "ESTALE"), *_INTERRUPTED, *_INTERRUPTED_LATE],
    "renameat2": [
        *_fails(*_MOVING), *_done("EEXIST", "EIO", "ENOENT", "ESTALE"), *_INTERRUPTED, *_INTERRUPTED_LATE,
        *_unsupported("EINVAL", "ENOSYS"),
    ],
    "link": [
        *_fails(*_MOVING), *_done("EEXIST", "EIO", "ESTALE"), *_INTERRUPTED, *_INTERRUPTED_LATE,
        *_unsupported("EMLINK", "ENOSYS", "EOPNOTSUPP", "EPERM"),
    ],
    "unlink": [
        *_fails("EACCES", "EBUSY", "EIO", "EPERM", "EROFS", "ESTALE"), *_done("EIO", "ENOENT", "ESTALE"),
        *_INTERRUPTED, *_INTERRUPTED_LATE,
    ],
    "mkdir": [
        *_fails("EACCES", "EIO", "ENOSPC", "EROFS"), *_done("EEXIST", "EIO"), *_INTERRUPTED, *_INTERRUPTED_LATE,
    ],
    "opendir": _fails("EACCES", "EIO", "EMFILE", "ENOENT", "ESTALE"),
    "readdir": [
        *_fails("EIO", "ENOENT", "ESTALE"), *_ways(UNSUPPORTED, "plain", [0], harmless=True),
    ],
    "readlink": _fails("EACCES", "EIO", "ENOENT"),
    "dlopen": _fails("EIO"),
    # Sockets, and the calls with which the library waits.
    "socket": _fails("EACCES", "EAFNOSUPPORT", "EMFILE", "ENFILE", "ENOBUFS"),
    "connect": _fails("EACCES", "EADDRNOTAVAIL", "ECONNREFUSED", "EHOSTUNREACH", "ENETUNREACH", "ETIMEDOUT"),
    "getaddrinfo": _ways(
        FAILS, "fail",
        [socket.EAI_AGAIN, socket.EAI_FAIL, socket.EAI_MEMORY, socket.EAI_NONAME, socket.EAI_SYSTEM],
    ),
    "send": [*_breaks("ECONNRESET", "EPIPE", "ETIMEDOUT"), *_fails("ENOBUFS", "ENOMEM"), *_INTERRUPTED],
    "recv": [
        *_breaks("ECONNRESET", "EHOSTUNREACH", "ETIMEDOUT"), *_fails("ENOMEM"), *_INTERRUPTED,
        *_short("one", "half", then=("ECONNRESET", "ETIMEDOUT")),
    ],
    "shutdown": _ways(FAILS, "fail", [errno.ENOTCONN]),
    "getsockopt": _fails("ENOBUFS"),
    "setsockopt": _fails("ENOBUFS", "ENOMEM", "ENOPROTOOPT"),
    "poll": [*_fails("ENOMEM"), *_INTERRUPTED],
    "epoll_create1": _fails("EMFILE", "ENFILE", "ENOMEM"),
    "epoll_wait": _INTERRUPTED,
    ("epoll_ctl", "add"): _fails("ENOMEM", "ENOSPC"),
    # These neither allocate nor block.
    ("epoll_ctl", "modify"): [],
    ("epoll_ctl", "remove"): [],
    "eventfd": _fails("EMFILE", "ENFILE", "ENODEV"),
    "pipe": _fails("EMFILE", "ENFILE"),
}  # fmt: skip
for _same, _as in (("pread", "read"), ("fstatat", "stat"), ("rmdir", "unlink")):
    WAYS[_same] = WAYS[_as]
# System call filters that predate statx refuse it.
WAYS["statx"] = [*WAYS["stat"], *_unsupported("EINVAL", "ENOSYS", "EPERM")]


def ways(call):
    """Returns the ways in which this call can misbehave."""
    if call.function in ("close", "write") and "/" not in call.object:
        return []  # Not files: close has nothing to flush, and a write that wakes a thread cannot fail.
    detail, *more = call.detail.split() or [""]
    found = list(WAYS[call.function] if call.function in WAYS else WAYS[call.function, detail])
    # The lock file does not exist yet, so it has no lease.
    if call.function == "open" and detail in ("read", "create") and more and "/lock/" not in call.object:
        found += _LEASED
    if call.function == "renameat2" and call.object.startswith("KydLog/Upload/"):
        found += _ELSEWHERE
    if call.function == "fsync" and call.object.endswith("/"):
        found += _unsupported("EINVAL", "EOPNOTSUPP")
    return found


def rules(call, way, calls):
    """Returns the rules for the preloaded library; `calls` is the recorded run."""
    if way.lasts:
        earlier = calls[: calls.index(call) + 1]
        first = sum(
            one.function == call.function and fnmatch.fnmatchcase(one.object, call.place)
            for one in earlier
        )
        return [_rule(call.function, call.place, first, 0, way.action, way.number)]
    found = [_rule(call.function, call.object, call.number, call.number, way.action, way.number)]
    if way.then_fails:
        after = call.number + 1
        found.append(_rule(call.function, call.object, after, after, "fail", way.then_fails))
    return found


def _rule(function, pattern, first, last, action, number):
    return "\t".join([function, pattern, str(first), str(last), action, str(number)])


def read_calls(path):
    """Returns the calls that the preloaded library has recorded."""
    counts, calls = {}, []
    for line in path.read_text(encoding="utf-8").splitlines():
        function, target, detail = line.split("\t")
        counts[function, target] = number = counts.get((function, target), 0) + 1
        calls.append(Call(function, target, detail, number))
    return calls
