#!/usr/bin/python3
"""Fuzzes the real program with a service whose answers are randomly corrupted.

Each trial is one run of the program over many accounts, each of which gets a different answer. Every run is
checked for the invariants (exit code 0, no output, no log file lost) and for what an answer may cause: a file
is archived only after 200 or 202, credentials are deleted only after 401, and only a truncated refusal keeps
the remaining accounts from being processed. The diagnostic log stays well-formed.

    answers.py --bin build/asan/bin --seconds 60 --crashes build/fuzz/crashes
"""

import argparse
import os
import random
import re
import shutil
import sys
import tempfile
import time
from pathlib import Path

TESTS = Path(__file__).resolve().parents[1]
if str(TESTS) not in sys.path:
    sys.path.insert(0, str(TESTS))

from e2e.harness import Machine  # noqa: E402 (the path must be set first)
from e2e.platforms import Linux  # noqa: E402
from service.certificates import CertificateFactory  # noqa: E402
from service.log_service import Answer, LogService  # noqa: E402

CORPUS = Path(__file__).resolve().parent / "corpus" / "answers"
ACCOUNTS = 24
RUN_SECONDS = 120
LONGEST = 64 * 1024
FILE = "a.log"

PIECES = (
    b"HTTP/1.1 200 OK\r\n", b"HTTP/1.1 202 Accepted\r\n", b"HTTP/1.1 401 Unauthorized\r\n",
    b"HTTP/1.1 100 Continue\r\n\r\n", b"HTTP/1.0 200\r\n", b"HTTP/2 500 x\r\n", b"HTTP/1.1 ",
    b"Content-Length: 3\r\n", b"Content-Length: 0\r\n", b"Content-Length: -1\r\n",
    b"Content-Length: 18446744073709551616\r\n", b"Content-Length: 4294967295\r\n",
    b"Content-Length: 1, 1\r\n", b"Transfer-Encoding: chunked\r\n",
    b"Transfer-Encoding: gzip, chunked\r\n", b"Transfer-Encoding: identity\r\n",
    b"Content-Encoding: gzip\r\n", b"Content-Type: text/plain; charset=utf-16\r\n",
    b"Content-Type: application/json; charset=\xff\r\n", b"Connection: close\r\n",
    b"Connection: keep-alive\r\n", b"Location: https://localhost:1/elsewhere\r\n",
    b"WWW-Authenticate: Basic realm=\"x\"\r\n", b"WWW-Authenticate: Negotiate\r\n",
    b"Set-Cookie: a=b\r\n", b"Retry-After: 1\r\n", b"Upgrade: h2c\r\n", b"X:\r\n", b" folded\r\n",
    b": no name\r\n", b"no colon\r\n", b"\r\n", b"\r\n\r\n", b"\n\n", b"\r", b"\n", b"\0",
    b"0\r\n\r\n", b"3\r\nabc\r\n", b"-1\r\n", b"ffffffffffffffff\r\n", b"7fffffff\r\n", b"0x3\r\n",
    b"3;name=value\r\nabc\r\n", b"\xef\xbb\xbf", b"\xff\xfe", b"%s%n%d", b"A" * 5000,
)  # fmt: skip


class Spoiler:
    """Mutates answers."""

    def __init__(self, chance, originals):
        self.chance = chance
        self.originals = originals

    def answer(self):
        answer = bytearray(self.chance.choice(self.originals))
        for _ in range(self.chance.choice((0, 1, 1, 2, 3, 5, 8))):
            self.chance.choice(
                (self._flip, self._replace, self._insert, self._cut, self._repeat, self._splice)
            )(answer)
        return bytes(answer[:LONGEST])

    def _place(self, answer):
        # Mutate mostly the head, which decides most of the outcome.
        end = len(answer) if self.chance.random() < 0.5 else min(len(answer), 200)
        return self.chance.randint(0, end)

    def _flip(self, answer):
        if answer:
            answer[min(self._place(answer), len(answer) - 1)] ^= 1 << self.chance.randrange(8)

    def _replace(self, answer):
        at, piece = self._place(answer), self.chance.choice(PIECES)
        answer[at : at + len(piece)] = piece

    def _insert(self, answer):
        at = self._place(answer)
        answer[at:at] = self.chance.choice(PIECES)

    def _cut(self, answer):
        first, second = sorted((self._place(answer), self._place(answer)))
        del answer[first:second]

    def _repeat(self, answer):
        first, second = sorted((self._place(answer), self._place(answer)))
        answer[first:first] = answer[first:second] * self.chance.choice((1, 1, 2, 20))

    def _splice(self, answer):
        other = self.chance.choice(self.originals)
        answer[self._place(answer) :] = other[self.chance.randint(0, len(other)) :]

    def pieces(self, answer):
        """Splits an answer into the pieces in which it is sent."""
        cuts = self.chance.choice((0, 0, 1, 3))
        places = sorted(self.chance.randint(0, len(answer)) for _ in range(cuts))
        return [answer[a:b] for a, b in zip([0, *places], [*places, len(answer)]) if a < b]


class Trial:
    """Runs on a machine whose accounts are created once. `service` knows the machine's accounts."""

    def __init__(self, machine, service, count):
        self.machine = machine
        self.service = service
        self.accounts = [f"account{at}" for at in range(count)]
        machine.switch_log_on()
        for account in self.accounts:
            machine.account(account)
        self.sealed = {name: machine.credential(name).read_bytes() for name in self.accounts}

    def run(self, answers, pieces=lambda answer: [answer]):
        """Runs the program with one answer per account and checks the outcome."""
        by_account = dict(zip(self.accounts, answers, strict=True))
        for account in self.accounts:
            self.machine.archive(account, FILE).unlink(missing_ok=True)
            self.machine.log(account, FILE)
            self.machine.credential(account).write_bytes(self.sealed[account])
        self.machine.diagnostic_log.unlink(missing_ok=True)
        self.service.requests.clear()
        self.service.decide = lambda request: (
            Answer(raw=pieces(by_account[request.account])) if request.account else None
        )
        self.machine.run(seconds=RUN_SECONDS)
        begun, ended = self._turns()
        assert len(begun) == len(set(begun)) and set(begun) <= set(self.accounts)
        # A refusal with a truncated body ends the run, which is intended; the other accounts wait.
        assert ended == begun[-len(ended) :] if ended else len(begun) == len(self.accounts)
        for account in ended:
            answer = by_account[account]
            assert not self.machine.is_archived(account, FILE), f"archived after: {answer[:200]!r}"
        for account, answer in by_account.items():
            self._judge(account, answer, account in begun)

    def _turns(self):
        """Returns the accounts that were processed, in order, and those that ended the run."""
        head, end = "<UploadOneUser> in  [", "<UploadOneUser> exception ["
        messages = self.machine.messages()
        begun = [text[len(head) : -1] for text in messages if text.startswith(head)]
        return begun, [text[len(end) : -1] for text in messages if text.startswith(end)]

    def _judge(self, account, answer, had_its_turn):
        sent = sum(one.account == account for one in self.service.requests)
        # Wine's WinHTTP may reuse a connection that both sides have announced as closing; the request then
        # fails before it is sent.
        fewest = 1 if had_its_turn and self.machine.platform.name == "linux" else 0
        requests = f"{account} sent {sent} requests; its answer: {answer[:200]!r}"
        assert fewest <= sent <= had_its_turn, requests
        if self.machine.is_archived(account, FILE):
            assert re.search(rb"20[02]", answer), f"no acceptance: {answer[:200]!r}"
        if not self.machine.credential(account).exists():
            assert b"401" in answer, f"the credentials were not refused: {answer[:200]!r}"


def corpus():
    """Returns the seeds and all answers of earlier findings, by name."""
    return {path.name: path.read_bytes() for path in sorted(CORPUS.iterdir())}


class Session:
    """The program of a build, and the resources of its trials."""

    def __init__(self, bin_folder, folder):
        self.folder = folder
        self.platform = Linux(folder / "platform", bin_folder, bin_folder)
        self.platform.folder.mkdir()
        self.platform.start()
        (folder / "certificates").mkdir()
        self.certificates = CertificateFactory(folder / "certificates")
        self.count = 0

    def trial(self, accounts, service):
        self.count += 1
        machine = Machine(self.platform, self.folder / str(self.count))
        service.accounts = machine.accounts.values()
        machine.tenant = service.tenant
        return Trial(machine, service, accounts)


def keep_crash(session, answers, pieces, crashes):
    """Tries each answer alone and keeps those that fail; keeps all of them if none does."""
    guilty = []
    with LogService(session.certificates.server) as service:
        for answer in answers:
            try:
                session.trial(1, service).run([answer], pieces)
            except AssertionError:
                guilty.append(answer)
    crashes.mkdir(parents=True, exist_ok=True)
    for at, answer in enumerate(guilty or answers):
        path = crashes / f"answers-crash-{os.getpid()}-{at}"
        path.write_bytes(answer)
        print(f"crashing input: {path}")


def fuzz(bin_folder, seconds, crashes):
    """Runs until the time is up or a failure is found; returns the exit code."""
    start = int.from_bytes(os.urandom(4), "big")
    print(f"random.Random({start})")
    spoiler = Spoiler(random.Random(start), list(corpus().values()))
    folder = Path(tempfile.mkdtemp(prefix="kyd-fuzz-"))
    end, runs = time.monotonic() + seconds, 0
    try:
        session = Session(bin_folder, folder)
        with LogService(session.certificates.server, keep_bodies=False) as service:
            trial = session.trial(ACCOUNTS, service)
            while time.monotonic() < end:
                answers = [spoiler.answer() for _ in range(ACCOUNTS)]
                try:
                    trial.run(answers, spoiler.pieces)
                except AssertionError as failure:
                    print(f"failure: {failure}")
                    keep_crash(session, answers, spoiler.pieces, crashes)
                    return 1
                runs += 1
    finally:
        shutil.rmtree(folder)
        print(f"stat::number_of_executed_units: {runs * ACCOUNTS}")
    return 0


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--bin", type=Path, required=True, help="folder of the built program")
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--crashes", type=Path, required=True, help="folder for crashing inputs")
    options = parser.parse_args()
    return fuzz(options.bin.resolve(), options.seconds, options.crashes)


if __name__ == "__main__":
    sys.exit(main())
