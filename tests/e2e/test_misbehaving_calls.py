"""Every call to the C library misbehaves in turn, in every way that real systems do.

An ordinary run is recorded. It is then repeated for each recorded call and each way to misbehave, either
for that call only or from that call on. Invariants: every file is complete in Upload or in Archive, and
every file in Archive was received completely and accepted. `--endurance long` runs all cases; the default
is a sample.
"""

import collections
import concurrent.futures
import contextlib
import datetime
import errno
import os
import queue
import re
import select
import shutil
import subprocess
import tempfile
import time
import zlib
from dataclasses import dataclass

import pytest

from service.log_service import ACCEPTED, Answer, LogService

from . import misbehaviour
from .harness import Machine, parse_log

# Shorter than the library's time-out, which no run may need.
LONGEST_RUN_SECONDS = 25
WORKERS = 2 * (os.cpu_count() or 1)
# A long run reports its progress this often.
CASES_PER_LINE = 1000

# Larger than one block of the library and of the program's own copy.
LARGE = 300_000
MIDDLE = 70_000
FILES = {
    ("alice", "a.log"): b"a short one\r\n",
    ("alice", "b.log"): b"large one\r\n" + os.urandom(LARGE),
    ("alice", "c.log"): b"",
    ("bob", "d.log"): b"middle one\r\n" + os.urandom(MIDDLE),
    ("bob", "refused.log"): b"for the service to refuse\r\n",
    ("carol", "e.log"): b"of an account that the service refuses\r\n",
}
EARLIER_RESULT = "<< Upload Result >>\r\n of an earlier run\r\n".encode("utf-16-le")
EARLIER_LINE = "2020/01/01T00:00:00.000, SID:000001, PID:000001, TID:000001, earlier,\r\n"
EARLIER_LOG = b"\xef\xbb\xbf" + 30 * EARLIER_LINE.encode()

NO_RENAME = f"renameat2\t*\t1\t0\tfail\t{errno.EINVAL}"
NO_LINK = f"link\t*\t1\t0\tfail\t{errno.EPERM}"


@dataclass(frozen=True)
class Surroundings:
    """The conditions of a run."""

    name: str
    forced: bool = False
    elsewhere: bool = False  # the archive is on another file system
    lacking: tuple = ()  # rules for the preloaded library: what the file systems do not support

    def __str__(self):
        return self.name


PLAIN = Surroundings("one file system")
OTHERS = [
    Surroundings(f"{where}{what}", forced=True, elsewhere=elsewhere, lacking=lacking)
    for where, elsewhere in (("one file system", False), ("two file systems", True))
    for what, lacking in (
        (", forced", ()),
        (" without renameat2, forced", (NO_RENAME,)),
        (" without renameat2 and link, forced", (NO_RENAME, NO_LINK)),
    )
]


@dataclass(frozen=True)
class Case:
    surroundings: Surroundings
    call: misbehaviour.Call
    way: misbehaviour.Way
    rules: tuple

    def __str__(self):
        call = self.call
        return f"{self.surroundings}: {call.function} {call.object} #{call.number}: {self.way}"


@dataclass
class Outcome:
    """What a run left, reduced to what can be compared with other runs."""

    places: dict
    messages: list
    result: str


class Worker:
    """A machine with its own service, on which cases run one after another."""

    def __init__(self, platform, certificates, folder, second):
        self.machine = Machine(platform, folder)
        self.machine.switch_log_on(OutputLogSize=len(EARLIER_LOG))
        self.second = second
        self.stand_in = platform.bin_folder.parent / "tests/misbehaving-calls.so"
        self.output = folder / "output"
        self.misbehaved = folder / "misbehaved"
        for account in sorted({account for account, _ in FILES}):
            self.machine.account(account)
        self.credentials = {
            account: self.machine.credential(account).read_bytes()
            for account in self.machine.accounts
        }
        self.service = LogService(certificates.server, accounts=self.machine.accounts.values())
        self.service.decide = self._decide
        self.machine.tenant = self.service.tenant
        self.refuses = True
        self.accepted = set()

    def _decide(self, request):
        if self.refuses and request.account == "carol":
            return Answer(401)
        if self.refuses and request.body == FILES["bob", "refused.log"]:
            return Answer(500)
        return None

    # The state before a run.

    def lay_out(self, surroundings):
        machine = self.machine
        for folder in (machine.log_dir, machine.diagnostic_base, machine.sysroot / "run/lock"):
            shutil.rmtree(folder)
            folder.mkdir()
        machine.log_dir.joinpath("UploadResult").mkdir()
        archive = machine.archive()
        if surroundings.elsewhere:
            shutil.rmtree(self.second, ignore_errors=True)
            self.second.mkdir()
            archive.symlink_to(self.second)
        else:
            archive.mkdir()
        for account in machine.accounts:
            os.makedirs(machine.upload(account))
            machine.archive(account).mkdir()
        for (account, name), content in FILES.items():
            machine.upload(account, name).write_bytes(content)
        self.seal()
        for path in self.result_paths():
            path.write_bytes(EARLIER_RESULT)
        machine.diagnostic_log.parent.mkdir()
        machine.diagnostic_log.write_bytes(EARLIER_LOG)
        self.accepted = set()

    def seal(self):
        for account, content in self.credentials.items():
            path = self.machine.credential(account)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(content)

    def own_device(self):
        return os.stat(self.machine.folder).st_dev

    def result_paths(self):
        """Returns today's and tomorrow's result file, in case a run crosses midnight."""
        today = datetime.date.today()
        days = [today, today + datetime.timedelta(days=1)]
        return [self.machine.log_dir / f"UploadResult/UploadResult{day:%Y%m%d}.log" for day in days]

    # A run.

    def run(self, environment, forced=False):
        """Runs the program; returns a list of problems, normally empty."""
        machine = self.machine
        arguments = [machine.tenant, machine.native()]
        if forced:
            arguments.append("Param_Force_Flush")
        program = machine.program_folder / machine.platform.program_name
        wrong = []
        with self.output.open("wb") as output:
            process = subprocess.Popen(
                machine.platform.command(program, arguments),
                env={**machine.environment, **environment},
                cwd=machine.working_folder,
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.STDOUT,
            )
            if not _wait(process, LONGEST_RUN_SECONDS):
                process.kill()
                wrong.append(f"hangs: still running after {LONGEST_RUN_SECONDS} s")
        code = process.wait()
        if code != 0 and not wrong:
            wrong.append(f"exit code {code}")
        written = machine.platform.own_output(self.output.read_bytes())
        if written:
            wrong.append(f"output: {written[:200]!r}")
        self.accepted |= {one.body for one in self.service.requests if one.status in ACCEPTED}
        self.service.forget_requests()
        return wrong

    def preloaded(self, rules=(), record=None):
        environment = {
            "LD_PRELOAD": os.fspath(self.stand_in),
            "KYD_ROOT": os.fspath(self.machine.folder),
            "KYD_MISBEHAVIOUR": "\n".join(rules),
            "KYD_MISBEHAVED": os.fspath(self.misbehaved),
        }
        return {**environment, **({"KYD_CALLS": os.fspath(record)} if record else {})}

    def record(self, surroundings):
        """Records an ordinary run in these surroundings; returns its calls and its outcome."""
        self.lay_out(surroundings)
        calls = self.machine.folder / "calls"
        calls.unlink(missing_ok=True)
        environment = self.preloaded(surroundings.lacking, calls)
        wrong = self.run(environment, surroundings.forced)
        wrong += self.broken_rules(surroundings.forced) + self.lost_lines()
        assert not wrong, wrong
        return misbehaviour.read_calls(calls), self.outcome()

    # What a run left.

    def places(self, account, name):
        machine = self.machine
        candidates = {
            "Upload": machine.upload(account, name),
            "Archive": machine.archive(account, name),
            "Archive, flushed": machine.archive(account, name + ".bak"),
        }
        return {where: path for where, path in candidates.items() if path.exists()}

    def broken_rules(self, forced, spared=()):
        """Returns violations of the invariants, normally none."""
        wrong = []
        for (account, name), content in FILES.items():
            there = self.places(account, name)
            if not there:
                wrong.append(f"lost: {account}/{name}")
            for where, path in there.items():
                if path.read_bytes() != content:
                    size = path.stat().st_size
                    wrong.append(f"damaged: {account}/{name} in {where}, {size} bytes")
            if "Archive" in there and content not in self.accepted:
                wrong.append(f"archived, but not accepted: {account}/{name}")
            if "Archive, flushed" in there and not forced:
                wrong.append(f"flushed, but not asked to: {account}/{name}")
        wrong += [f"left behind: {path}" for path in self._left_behind() if path not in spared]
        wrong += [
            f"overwritten: {path.name}"
            for path in self.result_paths()
            if not path.read_bytes().startswith(EARLIER_RESULT)
        ]
        return wrong

    def lost_lines(self):
        """Checks that the earlier diagnostic lines still exist, in the log or in its backup."""
        logs = [path.read_bytes() for path in self._logs() if path.exists()]
        is_kept = sum(log.startswith(EARLIER_LOG) for log in logs) == 1
        return [] if is_kept else ["earlier lines of the diagnostic log are gone"]

    def _logs(self):
        log = self.machine.diagnostic_log
        return [log.with_name(log.name + ".bak"), log]

    def _left_behind(self):
        expected = {f"{folder}/{account}" for folder in ("Upload", "Archive", "LogWork")
                    for account in self.machine.accounts}
        expected |= {f"LogWork/{account}/UserData.dat" for account in self.machine.accounts}
        for account, name in FILES:
            expected |= {f"Upload/{account}/{name}", f"Archive/{account}/{name}"}
            expected.add(f"Archive/{account}/{name}.bak")
        expected |= {f"UploadResult/{path.name}" for path in self.result_paths()}
        for top in ("Upload", "Archive", "LogWork", "UploadResult"):
            for folder, folders, files in os.walk(self.machine.log_dir / top):
                for name in folders + files:
                    found = os.path.join(folder, name)[len(os.fspath(self.machine.log_dir)) + 1 :]
                    if found not in expected:
                        yield re.sub(r"(\.kyd-move-).*", r"\1*", found)

    def outcome(self):
        places = {file: sorted(self.places(*file)) for file in FILES}
        lines = [line for path in self._logs() if path.exists() for line in parse_log(path.read_bytes())]
        messages = [self._comparable(line.message) for line in lines]
        results = b"".join(path.read_bytes() for path in self.result_paths()).decode("utf-16-le")
        return Outcome(places, messages, self._comparable(results))

    def _comparable(self, text):
        """Removes from a text what differs between workers and runs."""
        for own in (self.machine.native(), self.machine.tenant):
            text = text.replace(own, "")
        # After a successful move, the number is a leftover error code.
        return re.sub(r"\d{4}:\d\d:\d\d \d\d:\d\d:\d\d|(?<=Move OK) \[-?\d+\]", "", text)

    # A case.

    def judge(self, case, ordinary):
        """Runs a case; returns its problems, normally none, and whether its call was made at all."""
        forced = case.surroundings.forced
        self.lay_out(case.surroundings)
        self.misbehaved.write_bytes(b"")
        environment = self.preloaded((*case.surroundings.lacking, *case.rules))
        wrong = self.run(environment, forced)
        came_up = str(len(case.surroundings.lacking)) in self.misbehaved.read_text("ascii")
        # A copy that cannot be deleted remains.
        unremovable = case.call.function == "unlink" and case.way.action == "fail" and case.way.lasts
        spared = {path for path in self._left_behind() if ".kyd-move-" in path and unremovable}
        wrong += self.broken_rules(forced, spared) + self.lost_lines()
        if case.way.harmless and not wrong:
            wrong += _differences(ordinary, self.outcome())
        wrong += self._follow_up(forced, spared)
        return wrong, came_up

    def _follow_up(self, forced, spared):
        """Runs the program undisturbed, after which everything must be in place."""
        doubly = {file for file in FILES if len(self.places(*file)) > 1}
        self.seal()
        self.refuses = False
        wrong = self.run({})
        self.refuses = True
        wrong += self.broken_rules(forced, spared)
        for file, content in FILES.items():
            there = set(self.places(*file))
            if not there & {"Archive", "Archive, flushed"}:
                wrong.append(f"not archived: {file[0]}/{file[1]}")
            elif "Upload" in there and file not in doubly:
                wrong.append(f"waits still: {file[0]}/{file[1]}")
            if content not in self.accepted and "Archive, flushed" not in there:
                wrong.append(f"not sent: {file[0]}/{file[1]}")
        return [f"in the run that follows: {one}" for one in wrong]


def _wait(process, seconds):
    """Like Popen.wait, but without its polling interval of up to 50 ms."""
    descriptor = os.pidfd_open(process.pid)
    try:
        return bool(select.select([descriptor], [], [], seconds)[0])
    finally:
        os.close(descriptor)


def _differences(ordinary, outcome):
    """Returns how the run differs from an ordinary one, for cases that must not have any effect."""
    wrong = [
        f"harmless, but {file[0]}/{file[1]} is in {' and '.join(there)}"
        for file, there in outcome.places.items()
        if there != ordinary.places[file]
    ]
    if outcome.messages != ordinary.messages and not wrong:
        pairs = zip(outcome.messages + [None], ordinary.messages + [None])
        there, due = next((pair for pair in pairs if pair[0] != pair[1]), (None, None))
        wrong.append(f"harmless, but logged {there!r:.200} and not {due!r:.200}")
    if outcome.result != ordinary.result:
        wrong.append("harmless, but the result file differs")
    return wrong


def cases_of(surroundings, calls, already):
    """Yields all cases of a recorded run; in other surroundings only those of new calls on log files.

    `already` counts the calls of the run in plain surroundings.
    """
    counts = collections.Counter(map(_identity, calls))
    for call in calls:
        is_of_tree = "KydLog/Archive/" in call.object or call.object.startswith("KydLog/Upload/")
        is_new = is_of_tree and counts[_identity(call)] != already[_identity(call)]
        if is_new or surroundings is PLAIN:
            for way in misbehaviour.ways(call):
                yield Case(surroundings, call, way, tuple(misbehaviour.rules(call, way, calls)))


def _identity(call):
    return call.function, call.object


def sample(cases):
    """Chooses a reproducible sample: every way of every function, and every kind of way in every place."""
    chosen, covered = [], set()
    for case in sorted(cases, key=lambda case: zlib.crc32(str(case).encode())):
        call, way = case.call, case.way
        kind = call.function, call.detail
        where = call.place if case.surroundings is PLAIN else case.surroundings
        covers = {(kind, way), (kind, way.kind, where)}
        if not covers <= covered:
            chosen.append(case)
            covered |= covers
    return chosen


@pytest.fixture
def workers(machine, platform, certificates, tmp_path):
    if platform.name == "windows":
        pytest.skip("only calls of the native program can be intercepted")
    if platform.is_built_with("asan", "tsan"):
        pytest.skip("sanitizers do not work with this preloaded library")
    with contextlib.ExitStack() as stack:
        elsewhere = stack.enter_context(tempfile.TemporaryDirectory(dir="/dev/shm"))
        made = []
        for at in range(WORKERS):
            folder = tmp_path / f"worker-{at}"
            folder.mkdir()
            second = tmp_path.joinpath(elsewhere, str(at))
            made.append(Worker(platform, certificates, folder, second))
            stack.enter_context(made[-1].service)
        yield made


def record_all(worker):
    """Returns the cases of all surroundings, and the outcome of an ordinary run in each."""
    calls, outcome = worker.record(PLAIN)
    already = collections.Counter(map(_identity, calls))
    cases, outcomes = list(cases_of(PLAIN, calls, already)), {PLAIN: outcome}
    for surroundings in OTHERS:
        if not surroundings.elsewhere or os.stat("/dev/shm").st_dev != worker.own_device():
            calls, outcomes[surroundings] = worker.record(surroundings)
            cases += cases_of(surroundings, calls, already)
    return cases, outcomes


def judge_all(workers, cases, outcomes, tell):
    """Returns (case, problems, whether its call was made) for all cases; reports progress."""
    idle = queue.SimpleQueue()
    for worker in workers:
        idle.put(worker)

    def judge(case):
        worker = idle.get()
        try:
            return case, *worker.judge(case, outcomes[case.surroundings])
        finally:
            idle.put(worker)

    judged = []
    with concurrent.futures.ThreadPoolExecutor(len(workers)) as pool:
        for case, wrong, came_up in pool.map(judge, cases):
            judged.append((case, wrong, came_up))
            if wrong:
                tell(f"{case}: {'; '.join(wrong)}")
            if len(judged) % CASES_PER_LINE == 0:
                tell(f"{len(judged)} of {len(cases)} cases")
    return judged


def test_each_call_misbehaves_in_every_way(request, workers, capsys):
    at_length = request.config.getoption("--endurance") == "long"
    started = time.monotonic()
    cases, outcomes = record_all(workers[0])
    chosen = cases if at_length else sample(cases)

    def tell(text):
        with capsys.disabled():
            print(f"\n{text}", end="", flush=True)

    judged = judge_all(workers, chosen, outcomes, tell)
    failures = [(case, wrong) for case, wrong, _ in judged if wrong]
    missed = [str(case) for case, _, came_up in judged if not came_up]
    with capsys.disabled():
        print(
            f"\nmisbehaving calls: {len(chosen)} of {len(cases)} cases in {len(outcomes)} of"
            f" {len(OTHERS) + 1} surroundings, {len(failures)} failed, {len(missed)} did not come"
            f" up, {time.monotonic() - started:.0f} s"
        )
    kinds = collections.Counter((case.call.function, case.way.kind) for case in chosen)
    for (function, kind), count in sorted(kinds.items()):
        print(f"{function:16} {kind:36} {count:6}")
    assert not failures
    # Not every call occurs in every run: the number of blocks varies.
    assert len(missed) < len(chosen) / 20, missed
    for worker in workers:
        worker.machine.expect_no_secret()
