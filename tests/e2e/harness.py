"""The machine of one test: log tree, settings, credentials, runs of the program and their results."""

import collections
import contextlib
import datetime
import hashlib
import itertools
import json
import os
import re
import shutil
import subprocess
from dataclasses import dataclass
from pathlib import Path

from service.log_service import Account

from .platforms import PRODUCT_KEY, wait_until

ON = 16  # the bit of "OutputLog" that turns on the program's log
RUN_SECONDS = 60

_PREFIX = re.compile(
    r"(?P<time>\d{4}/\d\d/\d\dT\d\d:\d\d:\d\d\.\d{3}), "
    r"SID:(?P<session>\d{6,}), PID:(?P<process>\d{6,}), TID:(?P<thread>\d{6,}), "
)
_BYTE_ORDER_MARK = b"\xef\xbb\xbf"


@dataclass(frozen=True)
class LogLine:
    """A parsed line of the diagnostic log."""

    time: str
    session: int
    process: int
    thread: int
    message: str


def parse_log(content):
    """Parses a complete diagnostic log; fails if any byte violates the format.

    A message may contain line ends; the next line starts at the next prefix.
    """
    assert content.startswith(_BYTE_ORDER_MARK), "the log has no byte-order mark"
    assert b"\n" not in content.replace(b"\r\n", b""), "a line feed without a carriage return"
    text = content[len(_BYTE_ORDER_MARK) :].decode("utf-8")
    starts = [
        match
        for match in _PREFIX.finditer(text)
        if match.start() == 0 or text.endswith("\r\n", 0, match.start())
    ]
    assert starts and starts[0].start() == 0, f"the log starts with {text[:80]!r}"
    lines = []
    ends = [match.start() for match in starts[1:]] + [len(text)]
    for match, end in zip(starts, ends):
        message = text[match.end() : end]
        assert message.endswith(",\r\n"), f"this line is not terminated: {message!r}"
        lines.append(
            LogLine(
                match["time"],
                int(match["session"]),
                int(match["process"]),
                int(match["thread"]),
                message[:-3].replace("\r\n", "\n"),
            )
        )
    return lines


def expect_messages(actual, expected):
    """Compares whole message lists; an entry of `expected` may be a compiled pattern."""
    shown = [
        wanted.pattern
        if isinstance(wanted, re.Pattern) and at < len(actual) and wanted.fullmatch(actual[at])
        else (actual[at] if at < len(actual) else None)
        for at, wanted in enumerate(expected)
    ] + list(actual[len(expected) :])
    wanted = [one.pattern if isinstance(one, re.Pattern) else one for one in expected]
    different = (
        f"line {at}: {there!r:.300}, expected {due!r:.300}"
        for at, (there, due) in enumerate(itertools.zip_longest(shown, wanted))
        if there != due
    )
    assert shown == wanted, next(different)


class Running:
    """A started program. Leaving the block kills it if it is still running."""

    def __init__(self, machine, command, folder):
        self._machine = machine
        self._out = folder
        folder.mkdir(parents=True)
        # Files, not pipes: a process that Wine leaves behind would keep a pipe open.
        with (folder / "stdout").open("wb") as out, (folder / "stderr").open("wb") as err:
            self._process = subprocess.Popen(
                command,
                env=machine.environment,
                cwd=machine.working_folder,
                stdin=subprocess.DEVNULL,
                stdout=out,
                stderr=err,
            )
        self.pid = self._process.pid

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self._process.poll() is None:
            self.kill()

    def kill(self):
        self._process.kill()
        self._process.wait()

    def is_running(self):
        return self._process.poll() is None

    def wait(self, seconds=RUN_SECONDS):
        """Waits for the end and checks the invariants: exit code 0, no output, no file lost."""
        self.wait_for_good_end(seconds)
        self._machine.lost_nothing()

    def wait_for_good_end(self, seconds=RUN_SECONDS):
        """Like `wait`, but allows other programs to move files meanwhile."""
        code, output = self.wait_for_end(seconds)
        assert output == b"", f"the program wrote: {output[:2000]!r}"
        assert code == 0, f"the program ended with {code}; its platform wrote: {self._output()!r}"

    def _output(self):
        return (self._out / "stdout").read_bytes() + (self._out / "stderr").read_bytes()

    def wait_for_end(self, seconds=RUN_SECONDS):
        """Waits for any kind of end; returns exit code and output."""
        try:
            code = self._process.wait(seconds)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"the program was still running after {seconds} s") from None
        return code, self._machine.platform.own_output(self._output())


class Machine:
    """The machine of one test: everything that the program accesses is below `folder`."""

    def __init__(self, platform, folder):
        self.platform = platform
        self.folder = folder
        self.sysroot = folder / "sysroot"
        self.log_dir = folder / "KydLog"
        self.diagnostic_base = folder / "diagnostic"
        self.working_folder = folder / "cwd"
        self.program_folder = platform.program_folder
        self.tenant = "localhost:1"
        self.more_environment = {}
        self.launcher = []  # command prefix that starts the program
        self.accounts = {}
        self._made = {}
        self._secrets = set()
        self._before = {}
        self._after = []
        self._runs = 0
        for path in (
            *(self.log_dir / name for name in ("Upload", "Archive", "LogWork", "UploadResult")),
            self.diagnostic_base,
            self.working_folder,
            self.sysroot / "run/lock",
            self.sysroot / "var/log",
            self.sysroot / "home",
        ):
            path.mkdir(parents=True)
        self.no_settings()

    # Names and paths.

    def native(self, *parts):
        """Returns a path below the log directory as the program writes it."""
        return self.platform.native_path(self.log_dir.joinpath(*parts))

    @property
    def environment(self):
        return {**self.platform.environment(self.sysroot), **self.more_environment}

    def upload(self, *parts):
        return self.log_dir.joinpath("Upload", *parts)

    def archive(self, *parts):
        return self.log_dir.joinpath("Archive", *parts)

    def credential(self, account):
        return self.log_dir / "LogWork" / account / "UserData.dat"

    def search_order(self, account):
        """Returns the account's waiting log files in the order in which the program finds them."""
        names = self.platform.search_order(self.upload(account))
        return [name for name in names if name.lower().endswith(".log")]

    def account_order(self):
        names = self.platform.search_order(self.upload())
        return [
            name for name in names if self.upload(name).is_dir() and name != "NoSent_LogFiles"
        ]

    # Settings.

    def settings(self, values, legacy=None):
        """Sets registry values: a number as DWORD, text as string, bytes verbatim."""
        text = ""
        for key, entries in ((PRODUCT_KEY, legacy), (PRODUCT_KEY + r"\Corvid", values)):
            if entries is not None:
                lines = [f'"{name}"={_registry_value(value)}' for name, value in entries.items()]
                text += "\r\n".join([f"[HKEY_LOCAL_MACHINE\\{key}]", *lines, "", ""])
        self.platform.set_registry(text, self.sysroot)

    def no_settings(self):
        self.platform.set_registry("", self.sysroot)

    def switch_log_on(self, **more):
        base = self.platform.native_path(self.diagnostic_base)
        self.settings({"OutputLog": ON, "OutputLogDir": base, **more})

    # Certificates.

    def trust(self, authority):
        """Makes the machine trust server certificates of this authority."""
        self.platform.trust(authority, self.sysroot)

    def client_certificate(self, scope, identity):
        """Adds a certificate to a scope's "MY" store; returns the "cert" member for the credentials."""
        self.platform.add_client_certificate(scope, identity, self.sysroot)
        return {"hash": identity.thumbprint, "store": scope}

    # The tree.

    def account(self, name, *, archive=True, seal=True, **members):
        """Creates an account with its folders and, by default, sealed credentials."""
        # Account names may contain anything; credentials are sent in headers.
        own = f"{re.sub('[^A-Za-z0-9]', '-', name)[:40]}-{71 + len(self.accounts)}"
        self.accounts[name] = Account(name, f"key-of-{own}", f"session-of-{own}")
        self.upload(name).mkdir()
        if archive:
            self.archive(name).mkdir()
        self.credential(name).parent.mkdir()
        if seal:
            self.seal(name, **members)
        return self.accounts[name]

    def seal(self, name, **members):
        account = self.accounts[name]
        text = {"apikey": account.apikey, "idp_session": account.idp_session, **members}
        self._secrets |= {text["apikey"], text["idp_session"]}
        if isinstance(text.get("cert"), dict):
            self._secrets.add(text["cert"].get("base64encoded"))
        self.seal_text(name, json.dumps(text))

    def seal_text(self, name, text):
        content = text if isinstance(text, bytes) else text.encode("utf-8")
        self.platform.seal(self.credential(name), content)

    def log(self, account, name, content=None):
        """Creates a waiting log file, by default with unique content."""
        if content is None:
            content = f"{account}/{name}: something happened\r\n".encode("utf-8", "surrogateescape")
        self.upload(account, name).write_bytes(content)
        self._made[account, name] = content
        return content

    def logs(self, account, *names):
        for name in names:
            self.log(account, name)

    def content(self, account, name):
        return self._made[account, name]

    def made(self):
        """Returns the log files in Upload or Archive as (account, name)."""
        return list(self._made)

    def remove_log(self, account, name):
        """Removes a waiting file, as another program could."""
        self.upload(account, name).unlink()
        return self.forget_log(account, name)

    def forget_log(self, account, name):
        """Records that another program removed the file from the tree during the run."""
        content = self._made.pop((account, name))
        self._before.pop(os.path.join("Upload", account, name), None)
        return content

    def change_log(self, account, name, content):
        """Changes the content of a waiting file, as another program could."""
        self.upload(account, name).write_bytes(content)
        self.note_change(account, name, content)

    def note_change(self, account, name, content):
        """Records that another program gave a waiting file this content."""
        self._made[account, name] = content
        digest = hashlib.sha256(content).hexdigest()
        self._before[os.path.join("Upload", account, name)] = digest

    def expect_more(self, content):
        """Records that another program adds a file with this content to the archive."""
        self._before["Archive/more"] = hashlib.sha256(content).hexdigest()

    @contextlib.contextmanager
    def held_by_another(self, path, *how):
        """Another Windows program keeps the file open, either unshared or shared "for-reading"."""
        arguments = [self.platform.native_path(path), *how]
        holder = subprocess.Popen(
            self.platform.command(self.platform.hold_open, arguments),
            env=self.environment,
            stdin=subprocess.PIPE,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        try:
            assert wait_until(lambda: _is_open(path))
            yield
        finally:
            holder.stdin.close()
            holder.wait(30)

    def archived(self, account, name, content=b"sent before\n"):
        """Creates an archived file of an earlier run."""
        self.archive(account, name).write_bytes(content)

    # Runs.

    def use_own_program_folder(self):
        """Gives the test its own copy of the program's folder to modify."""
        self.program_folder = self.folder / "program"
        self.program_folder.mkdir()
        for path in self.platform.program_folder.iterdir():
            # The program is large and never modified: link it.
            is_program = path.name == self.platform.program_name
            copy = os.link if is_program else shutil.copy2
            copy(path, self.program_folder / path.name)

    def start(self, arguments=None):
        """Starts the program, by default with the tenant and the log directory."""
        if arguments is None:
            arguments = [self.tenant, self.native()]
        self._runs += 1
        self._before = self.snapshot()
        program = self.program_folder / self.platform.program_name
        command = [*self.launcher, *self.platform.command(program, arguments)]
        return Running(self, command, self.folder / "output" / str(self._runs))

    def run(self, arguments=None, seconds=RUN_SECONDS):
        """Runs the program and checks the invariants: exit code 0, no output, no file lost."""
        with self.start(arguments) as running:
            running.wait(seconds)

    def run_forced(self):
        self.run([self.tenant, self.native(), "Param_Force_Flush"])

    # Results of a run.

    def snapshot(self):
        """Returns all files and folders of the log directory: relative name to SHA-256 or "folder"."""
        found = {}
        for folder, folders, files in os.walk(self.log_dir, followlinks=True):
            for name in folders:
                found[os.path.relpath(os.path.join(folder, name), self.log_dir)] = "folder"
            for name in files:
                path = Path(folder, name)
                content = _content_of(path)
                relative = os.path.relpath(path, self.log_dir)
                found[relative] = hashlib.sha256(content).hexdigest()
        return found

    def changes(self):
        """Compares with the state before the latest start; returns (removed, new or changed)."""
        after = self.snapshot()
        gone = sorted(set(self._before) - set(after))
        new = sorted(name for name in after if self._before.get(name) != after[name])
        return gone, new

    def lost_nothing(self):
        """Checks that each log file exists exactly once, unchanged, in Upload or Archive; and no others."""
        for (account, name), content in self._made.items():
            places = [
                path
                for path in (
                    self.upload(account, name),
                    self.archive(account, name),
                    self.archive(account, name + ".bak"),
                )
                # isfile returns False for a name that is too long.
                if os.path.isfile(path) and path.read_bytes() == content
            ]
            assert len(places) == 1, f"{account}/{name} is in {places}"
        assert _contents(self._before) == _contents(self.snapshot())

    def is_waiting(self, account, name):
        return self.upload(account, name).exists() and not self.archive(account, name).exists()

    def is_archived(self, account, name):
        return self.archive(account, name).exists() and not self.upload(account, name).exists()

    def result_files(self):
        return sorted((self.log_dir / "UploadResult").iterdir())

    def result_file(self):
        """Returns the day's result file; a run around midnight may have used the day before."""
        (path,) = self.result_files()
        today = datetime.date.today()
        days = [today, today - datetime.timedelta(days=1)]
        assert path.name in [f"UploadResult{day:%Y%m%d}.log" for day in days]
        return path.read_bytes()

    @property
    def diagnostic_log(self):
        return self.diagnostic_base / "DebugSSO" / "KydLogUploader.log"

    def log_lines(self):
        return parse_log(self.diagnostic_log.read_bytes())

    def messages(self):
        return [line.message for line in self.log_lines()]

    def all_bytes(self):
        """Returns all that runs have written: names and contents of all files except the log files."""
        pieces = []
        written = (self.log_dir / "UploadResult", self.diagnostic_base, self.sysroot)
        for top in (*written, self.working_folder, self.folder / "output"):
            for folder, _, files in os.walk(top):
                for name in files:
                    path = Path(folder, name)
                    pieces += [os.fsencode(path), _content_of(path)]
        return b"\n".join(pieces)

    def expect_no_secret(self):
        """Checks that runs have not written any key or session."""
        left = self.all_bytes()
        for secret in self._secrets:
            # A shorter one could match by chance.
            if isinstance(secret, str) and len(secret) >= 8:
                assert secret.encode("utf-8", "surrogatepass") not in left
                assert secret.encode("utf-16-le", "surrogatepass") not in left


def _is_open(path):
    """Whether any process has the file open; under Wine it is Wine's server that does."""
    for entry in Path("/proc").glob("[0-9]*/fd/*"):
        try:
            if os.readlink(entry) == os.fspath(path):
                return True
        except OSError:
            pass  # The process or its file is gone.
    return False


def _content_of(path):
    """Returns the content if it can be read. A pipe is not read: that would wait for a writer."""
    try:
        return path.read_bytes() if path.is_file() else b""
    except OSError:
        return b""


def _contents(snapshot):
    """Counts each log file's content in Upload and Archive together."""
    return collections.Counter(
        digest
        for name, digest in snapshot.items()
        if digest != "folder" and name.split(os.sep)[0] in ("Upload", "Archive")
    )


def _registry_value(value):
    if isinstance(value, bytes):
        return value.decode("ascii")
    if isinstance(value, int):
        return f"dword:{value:08x}"
    escaped = value.replace("\\", "\\\\").replace('"', '\\"')
    return f'"{escaped}"'


