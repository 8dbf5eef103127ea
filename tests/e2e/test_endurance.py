"""Many runs: killed, racing, failing and ordinary ones, each checked individually.

`--endurance long` runs enough of them to be trusted; the default is a sample. Times are random; the number
that a failing test prints reproduces them.
"""

import collections
import errno
import json
import os
import random
import re
import signal
import subprocess
import sys
import threading
import time

import pytest

from service.log_service import Answer, Hold, Stage

from . import messages as say
from .platforms import wait_until

ACCOUNTS = ("alice", "bob", "carol")
SIZES = (0, 200, 20_000, 700_000)
# The number of runs by kind and platform: (sample, long).
ROUNDS = {
    "kills": {"linux": (40, 1000), "windows": (5, 100)},
    "service kills": {"linux": (10, 200), "windows": (2, 20)},
    "races": {"linux": (10, 200), "windows": (2, 200)},
    "normal runs": {"linux": (40, 1000), "windows": (5, 100)},
    "failing runs": {"linux": (40, 1000), "windows": (5, 100)},
    "files": {"linux": (1000, 20_000), "windows": (100, 2_000)},
}
COPIES = 8
UNHURRIED = 0.02  # seconds before an answer


@pytest.fixture
def rounds(request, platform):
    at_length = request.config.getoption("--endurance") == "long"
    return lambda kind: ROUNDS[kind][platform.name][at_length]


@pytest.fixture
def chance():
    start = int.from_bytes(os.urandom(4), "big")
    print(f"random.Random({start})")
    return random.Random(start)


class Tree:
    """Accounts whose log files are moved back to Upload before every round."""

    def __init__(self, machine, chance):
        self.machine = machine
        for account in ACCOUNTS:
            machine.account(account)
        self.files = {
            (account, f"{at}.log"): b"%s %d\n" % (account.encode(), at) + chance.randbytes(size)
            for account in ACCOUNTS
            for at, size in enumerate(SIZES)
        }

    def reset(self):
        for (account, name), content in self.files.items():
            self.machine.archive(account, name).unlink(missing_ok=True)
            self.machine.log(account, name, content)

    def waiting(self):
        return {file for file in self.files if self.machine.upload(*file).exists()}

    def file_of(self, body):
        (file,) = (file for file, content in self.files.items() if content == body)
        return file

    def accepted(self, requests):
        """Counts how often each file was completely accepted."""
        return collections.Counter(
            self.file_of(one.body) for one in list(requests) if one.status in (200, 202)
        )


@pytest.fixture
def tree(machine, chance):
    return Tree(machine, chance)


def seconds_of_a_run(machine, tree):
    tree.reset()
    started = time.monotonic()
    machine.run()
    return time.monotonic() - started


def test_killed_at_any_moment_nothing_is_lost(machine, service, tree, rounds, chance):
    usual = seconds_of_a_run(machine, tree)
    cut_off = 0
    for at in range(rounds("kills")):
        tree.reset()
        service.forget_requests()
        # A program that starts slowly spends little of its time working. Every other kill therefore follows
        # shortly after a file arrives at a slow service.
        at_work = at % 2 == 0
        service.decide = (lambda _: Answer(200, delay=UNHURRIED)) if at_work else None
        with machine.start() as running:
            if at_work:
                assert service.wait_for_requests(chance.randint(1, len(tree.files) // 2))
                time.sleep(chance.uniform(0, 2 * UNHURRIED))
            else:
                time.sleep(chance.uniform(0, 1.1 * usual))
            running.kill()
        machine.lost_nothing()
        accepted = tree.accepted(service.requests)
        waiting = tree.waiting()
        assert set(tree.files) - waiting <= set(accepted), "archived without having been accepted"
        doubtful = waiting & set(accepted)
        assert len(doubtful) <= 1, "only one file can be in transit"
        cut_off += 0 < len(waiting) < len(tree.files)

        service.decide = None
        machine.run()
        assert not tree.waiting()
        accepted = tree.accepted(service.requests)
        assert set(accepted) == set(tree.files)
        twice = {file for file, count in accepted.items() if count > 1}
        # An answer in transit when the program was killed may have been counted since.
        assert twice <= waiting and len(twice) <= 1 and doubtful <= twice
        assert max(accepted.values()) <= 2
    assert cut_off, "no kill interrupted a run"


class ServiceProcess:
    """The log service as a separate process, which can be killed."""

    def __init__(self, machine, folder):
        self.machine = machine
        self.folder = folder
        folder.mkdir()
        self.store = folder / "store"
        self.starts = 0
        accounts = [vars(account) for account in machine.accounts.values()]
        (folder / "accounts.json").write_text(json.dumps(accounts))

    def start(self):
        self.starts += 1
        ready = self.folder / f"ready-{self.starts}"
        self.store = self.folder / f"store-{self.starts}"
        script = os.path.join(os.path.dirname(__file__), "../service/log_service.py")
        self.process = subprocess.Popen(
            [
                sys.executable,
                script,
                *("--accounts", self.folder / "accounts.json"),
                *("--store", self.store),
                *("--ready-file", ready),
            ],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
        )
        assert wait_until(ready.exists)
        port = re.search(r'"port": (\d+)', ready.read_text())[1]
        self.machine.tenant = f"localhost:{port}"

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def bodies(self):
        return [path.read_bytes() for path in self.store.rglob("*.log")]


def test_service_killed_at_any_moment_nothing_is_lost(machine, tree, tmp_path, rounds, chance):
    service = ServiceProcess(machine, tmp_path / "service")
    service.start()
    usual = seconds_of_a_run(machine, tree)
    service.kill()
    for _ in range(rounds("service kills")):
        tree.reset()
        service.start()
        with machine.start() as running:
            time.sleep(chance.uniform(0, 1.1 * usual))
            service.kill()
            running.wait()
        archived = {tree.files[file] for file in set(tree.files) - tree.waiting()}
        assert archived <= set(service.bodies()), "archived without having been accepted"
    service.start()
    try:
        machine.run()
        assert not tree.waiting()
    finally:
        service.kill()


def test_of_copies_that_start_together_one_works(machine, service, rounds, chance):
    machine.switch_log_on()
    machine.account("alice")
    for at in range(rounds("races")):
        name = f"{at}.log"
        machine.log("alice", name)
        earlier = len(service.requests)
        hold = Hold()
        service.answer_with(Answer(200, hold=hold))
        copies = [machine.start() for _ in range(COPIES)]
        try:
            assert hold.reached.wait(60)
            assert wait_until(lambda: sum(copy.is_running() for copy in copies) == 1, 60)
            assert machine.is_waiting("alice", name)
            assert len(service.requests) == earlier + 1
            if at % 2:
                # A killed owner releases the name for the next start.
                (holder,) = (copy for copy in copies if copy.is_running())
                holder.kill()
                copies.remove(holder)
                hold.release.set()
                machine.run()
            hold.release.set()
            for copy in copies:
                copy.wait_for_good_end()
        finally:
            for copy in copies:
                copy.__exit__()
        machine.lost_nothing()
        assert machine.is_archived("alice", name)
        assert len(service.requests) == earlier + 1 + at % 2
    begun = [text for text in machine.messages() if text.startswith("*** EXECUTE")]
    assert len(begun) == rounds("races") + rounds("races") // 2


def test_ordinary_runs_end_well(machine, service, tree, rounds):
    for _ in range(rounds("normal runs")):
        tree.reset()
        service.forget_requests()
        machine.run(seconds=30)
        assert not tree.waiting()
        assert set(tree.accepted(service.requests).values()) == {1}


def random_failure(chance):
    """An invalid answer: the connection breaks, or the bytes are not HTTP."""
    stage = chance.choice([*Stage, None])
    if stage is None:
        return Answer(raw=chance.randbytes(chance.randrange(1, 2000)))
    status = chance.choice([200, 401, 500])
    after = chance.randrange(0, 300_000) if stage is Stage.REQUEST_BODY else chance.randrange(60)
    reset = chance.random() < 0.5
    return Answer(status, b"x" * 100, drop=stage, drop_after=after, reset=reset)


def test_failing_runs_end_well(machine, service, tree, rounds, chance):
    usual_tenant = machine.tenant
    for at in range(rounds("failing runs")):
        tree.reset()
        service.forget_requests()
        for account in ACCOUNTS:
            machine.seal(account)
        # Nothing listens on port 1 of the loopback: every tenth run is refused.
        machine.tenant = "localhost:1" if at % 10 == 9 else usual_tenant
        service.answer_with(*(random_failure(chance) for _ in range(3)))
        machine.run(seconds=60)
        service.forget_answers()


def sizes_of(pid):
    """Returns resident bytes, open descriptors and threads of a process.

    Sanitizers keep freed memory, so the bytes count as 0 with them.
    """
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        text = status.read()
    resident = int(re.search(r"VmRSS:\s+(\d+) kB", text)[1]) * 1024
    with open(f"/proc/{pid}/maps", encoding="utf-8", errors="replace") as maps:
        if re.search("/lib[at]san", maps.read()):
            print("memory is not checked: the program runs with a sanitizer")
            resident = 0
    threads = int(re.search(r"Threads:\s+(\d+)", text)[1])
    return resident, len(os.listdir(f"/proc/{pid}/fd")), threads


def test_long_run_does_not_leak(machine, service, rounds):
    machine.switch_log_on()
    count = rounds("files")
    for account in ACCOUNTS:
        machine.account(account)
    for at in range(count):
        machine.upload(ACCOUNTS[at % 3], f"{at}.log").write_bytes(b"line\n" * 800)
    service.keep_bodies = False
    samples = []

    def sample(request):
        if request.number % (count // 20) == 0:
            samples.append(sizes_of(running.pid))

    service.on_request = sample
    with machine.start() as running:
        running.wait(seconds=1800)
    print(samples)
    assert machine.messages()[-3:] == say.summary(accounts=3, send=3, ok=count)
    # The first samples are warm-up. Afterwards, the platform's pools may still grow by some threads with a
    # few descriptors each; a leak per file would exceed that.
    early, late = samples[2:6], samples[-4:]
    for what, slack in enumerate((2_000_000, 20, 5)):
        most = max(sample[what] for sample in early)
        assert max(sample[what] for sample in late) <= most * 1.02 + slack, samples
    if machine.platform.name == "linux":
        # The main thread and the one that resolves names; the thread sanitizer adds its own.
        limit = 3 if machine.platform.is_built_with("tsan") else 2
        assert max(sample[2] for sample in samples) <= limit, samples


def dripping(piece=b"x" * 10_000, pause=0.01):
    """An endless body at one megabyte per second."""
    while True:
        yield piece
        time.sleep(pause)


def skip_unless_long(request):
    if request.config.getoption("--endurance") != "long":
        pytest.skip("only in the long form: waits 30 s")


@pytest.fixture
def hurried(request, machine):
    """The factor by which time is accelerated for the program; 1 in the long form."""
    if request.config.getoption("--endurance") == "long":
        return 1
    if machine.platform.name == "windows":
        pytest.skip("time can be accelerated only for the native program")
    if machine.platform.is_built_with("asan", "tsan"):
        pytest.skip("sanitizers do not work with this preloaded library")
    stand_in = machine.platform.bin_folder.parent / "tests/misbehaving-calls.so"
    machine.more_environment.update(LD_PRELOAD=os.fspath(stand_in), KYD_HURRY="30")
    return 30


@pytest.mark.parametrize("status", [500, 200])
def test_body_without_end_is_cut_off_and_takes_no_memory(request, machine, service, status):
    if status == 200 or machine.platform.name == "windows":
        skip_unless_long(request)
    machine.switch_log_on()
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    first, second = machine.search_order("alice")
    service.answer_with(Answer(status, dripping()))
    peaks = []
    with machine.start() as running:
        assert service.wait_for_requests(1)
        while len(service.requests) < 2:
            peaks.append(sizes_of(running.pid)[0])
            time.sleep(0.5)
        running.wait()
    # The body has lasted for half a minute.
    assert max(peaks[4:]) < max(peaks[:4]) + 4_000_000, peaks
    assert machine.is_archived("alice", second)
    if status == 200:
        assert machine.is_archived("alice", first)
        assert machine.messages()[-3:] == say.summary(accounts=1, send=1, ok=2)
        return
    assert machine.is_waiting("alice", first)
    head = "<UploadOneUser> Error [500, "
    (error,) = (text for text in machine.messages() if text.startswith(head))
    assert error == (head + "x" * 2000)[:1023]
    assert machine.messages()[-3:] == say.summary(accounts=1, send=1, ok=1, error=1)


def test_silence_in_the_text_of_a_refusal_ends_the_run(machine, service, hurried):
    machine.switch_log_on()
    for account in ACCOUNTS:
        machine.account(account)
        machine.log(account, "a.log")
    first = machine.account_order()[0]
    done = threading.Event()

    def text():
        yield b"the beginning"
        done.wait(120)

    service.answer_with(Answer(500, text(), (("Content-Type", "text/plain"),)))
    started = time.monotonic()
    machine.run(seconds=120)
    took = time.monotonic() - started
    done.set()
    assert 29 / hurried < took < 30 / hurried + 20
    assert len(service.requests) == 1
    assert all(machine.is_waiting(account, "a.log") for account in ACCOUNTS)
    assert f"<UploadOneUser> exception [{first}]" in machine.messages()


def let_one_wait(machine, service, hurried):
    """Runs the program while the service does not answer the first request."""
    machine.switch_log_on()
    for account in ACCOUNTS:
        machine.account(account)
        machine.log(account, "a.log")
    first = machine.account_order()[0]
    hold = Hold()
    service.answer_with(Answer(200, hold=hold))
    started = time.monotonic()
    machine.run(seconds=120)
    took = time.monotonic() - started
    hold.release.set()
    assert 29 / hurried < took < 30 / hurried + 20
    assert machine.is_waiting(first, "a.log")
    assert f"<UploadOneUser> exception socket[{first}]" in machine.messages()
    if machine.platform.name == "linux":
        assert any("Failed to read HTTP status line" in text for text in machine.messages())
    assert machine.messages()[-3:] == say.summary(accounts=3, send=2, ok=2)


def test_silence_of_the_service_ends_the_account_and_not_the_run(machine, service, hurried):
    let_one_wait(machine, service, hurried)


def test_time_out_works_although_nothing_can_wake_the_library(machine, service, hurried):
    if machine.platform.name == "windows":
        pytest.skip("Windows times the requests itself")
    if hurried == 1:
        pytest.skip("part of the default run")
    # Adding an anonymous inode to epoll fails: the eventfd that wakes a thread, and a timerfd, without which
    # Asio is built.
    rules = [f"epoll_ctl\t{file}\t1\t0\tfail\t{errno.ENOMEM}" for file in ("eventfd", "timer")]
    machine.more_environment.update(KYD_MISBEHAVIOUR="\n".join(rules))
    let_one_wait(machine, service, hurried)
