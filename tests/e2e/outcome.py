"""The complete expected outcome of a run with one fault.

A fate says what happens to one file. Together, the fates of all files determine everything that a run
leaves: messages, counters, result file, requests, file locations. The fault always hits the victim, the
second of alice's three files; bob's only file is unaffected.
"""

import os
import re
from dataclasses import dataclass
from pathlib import Path

from . import messages as say
from .harness import expect_messages
from .result_text import block, times


@dataclass(frozen=True)
class Accepted:
    """Sent, and moved unless `move_error` is set."""

    status: int = 200
    move_error: int | None = None
    ends_account = ends_run = False

    def lines(self, machine, account, name):
        return say.accepted(machine, account, name, self.status, self.move_error)


@dataclass(frozen=True)
class Refused:
    """Sent, answered with another status, and not moved. `body` may be a compiled pattern."""

    status: int = 500
    body: object = ""
    ends_account = ends_run = False

    def lines(self, machine, account, name):
        *first, last = say.refused(machine, account, name, self.status, self.body)
        if isinstance(self.body, re.Pattern):
            pattern = rf"<UploadOneUser> Error \[{self.status}, {self.body.pattern}"
            last = re.compile(pattern, re.DOTALL)
        else:
            last = last[:1023]
        return [*first, last]


@dataclass(frozen=True)
class BrokenLine:
    """Not known to be sent: the account ends, the run continues."""

    ends_account, ends_run = True, False

    def lines(self, machine, account, name):
        return [*say.tried(machine, account, name), *say.transport_failure(account)]


@dataclass(frozen=True)
class EndOfRun:
    """Cannot be sent: the run ends. `before` holds the file's messages up to that point."""

    before: tuple = ()
    ends_account = ends_run = True

    def lines(self, machine, account, name):
        failure = f"<UploadOneUser> exception [{account}]"
        return [*say.tried(machine, account, name), *self.before, failure]


VICTIM_SIZE = 300_000


def load(machine):
    """Creates the accounts and files that all cases share."""
    machine.switch_log_on()
    for account in ("alice", "bob"):
        machine.account(account)
    for name in ("a.log", "b.log", "c.log"):
        machine.log("alice", name, f"{name}\n".encode() + os.urandom(VICTIM_SIZE))
    machine.log("bob", "d.log")


class Plan:
    """The accounts and their files, in the order of the next run."""

    def __init__(self, machine):
        self.machine = machine
        self.gone = set()  # files that are removed during the run
        self.order = [
            (account, machine.search_order(account)) for account in machine.account_order()
        ]
        self.fates = {}

    def files(self):
        return [(account, name) for account, names in self.order for name in names]

    @property
    def victim(self):
        return "alice", dict(self.order)["alice"][1]

    def answer_victim(self, service, answer, before=None):
        """Queues the answers up to the victim's; `before` is the answer to the file before it."""
        at = self.files().index(self.victim)
        service.answer_with(*[None] * (at - 1), before, answer)

    def fate(self, file):
        return self.fates.get(file, Accepted())

    def met(self):
        """Yields the files that the run reaches, in order."""
        for account, names in self.order:
            for name in names:
                yield account, name
                fate = self.fate((account, name))
                if fate.ends_run:
                    return
                if fate.ends_account:
                    break

    def expect(self, service=None, unheard=(), bodies=None):
        """Checks everything that the run left.

        The service must have received all files that the run reached, except those in `unheard`, each
        with its content or the content in `bodies`.
        """
        met = list(self.met())
        self._expect_messages(met)
        self._expect_places(met)
        self._expect_result_file(met)
        if service:
            sent = [
                (bodies or {}).get(file) or self.machine.content(*file)
                for file in met
                if file not in unheard
            ]
            assert [one.body for one in service.requests] == sent
        expect_no_process_left(self.machine)

    def _count(self, met, kind):
        return sum(isinstance(self.fate(file), kind) for file in met)

    def _accounts(self, met):
        """Returns the accounts reached, those completed, and the completed ones with refused files."""
        ended = {account for account, name in met if self.fate((account, name)).ends_account}
        begun = [account for account, _ in self.order]
        if met and self.fate(met[-1]).ends_run:
            begun = begun[: begun.index(met[-1][0]) + 1]
        done = [account for account in begun if account not in ended]
        refusals = [
            (account, self._count([file for file in met if file[0] == account], Refused))
            for account in done
        ]
        return begun, done, [one for one in refusals if one[1]]

    def _expect_messages(self, met):
        expected = say.started(self.machine)
        begun, done, _ = self._accounts(met)
        for account in begun:
            expected += say.account_in(account)
            for name in (name for owner, name in met if owner == account):
                expected += self.fate((account, name)).lines(self.machine, account, name)
            if account in done:
                expected += say.account_out(account)
        if met and self.fate(met[-1]).ends_run:
            expected += say.stopped()
        else:
            ok, error = self._count(met, Accepted), self._count(met, Refused)
            expected += say.summary(accounts=len(begun), send=len(done), ok=ok, error=error)
        expect_messages(self.machine.messages(), expected)

    def _expect_places(self, met):
        self.machine.lost_nothing()
        for file in self.files():
            if file in self.gone:
                continue
            fate = self.fate(file)
            moved = file in met and isinstance(fate, Accepted) and fate.move_error is None
            there = self.machine.upload(*file).exists()
            assert there != moved, f"{file} is in the wrong place"
        refused = {file[0] for file in met if getattr(self.fate(file), "status", 0) == 401}
        for account, _ in self.order:
            assert self.machine.credential(account).exists() == (account not in refused)

    def _expect_result_file(self, met):
        begun, done, refusals = self._accounts(met)
        success, error = self._count(met, Accepted), self._count(met, Refused)
        if not success and not error:
            assert not self.machine.result_files()
            return
        content = self.machine.result_file().decode("utf-16-le")
        (time,) = times(content.encode("utf-16-le"))
        assert content == block(
            time,
            total=len(begun),
            target=len(done),
            not_subject=0,
            success=success,
            error=error,
            log_dir=self.machine.native(),
            errors=refusals,
        )


def run_with(plan, service, answer, fate, heard=True):
    """Runs the program while the service gives this answer to the victim."""
    plan.answer_victim(service, answer)
    plan.fates[plan.victim] = fate
    plan.machine.run()
    plan.expect(service, unheard=() if heard else (plan.victim,))


def expect_no_process_left(machine):
    """Fails if a process has the machine's log directory on its command line."""
    mark = os.fsencode(machine.native())
    for path in Path("/proc").glob("[0-9]*/cmdline"):
        try:
            assert mark not in path.read_bytes(), f"{path} is still running"
        except OSError:
            pass  # The process has just ended.
