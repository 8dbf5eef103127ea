"""Complete runs of the native program under Valgrind's memcheck.

One run covers all outcomes of an account: accepted, failed, refused, truncated, without credentials, with a
client certificate from the store and from the credentials. A second one flushes the remaining files. Errors
and definitely lost blocks fail the runs.
"""

import base64
import dataclasses
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
TESTS = HERE.parent
ROOT = TESTS.parent
sys.path.insert(0, str(TESTS))

from e2e.harness import Machine  # noqa: E402 (the path must be set first)
from e2e.platforms import Linux  # noqa: E402
from service.certificates import CertificateFactory  # noqa: E402
from service.log_service import Answer, LogService, Stage  # noqa: E402

RUN_SECONDS = 600
FOUND = 99
LARGE = 700_000


class LinuxUnderValgrind(Linux):
    """Runs the program under Valgrind, but not the tools of the tests."""

    def report(self):
        """Returns Valgrind's output for all runs."""
        return "".join(path.read_text("utf-8", "replace") for path in self.folder.glob("valgrind-*"))

    def command(self, program, arguments):
        return [
            "valgrind", "--quiet", "--tool=memcheck", f"--error-exitcode={FOUND}",
            "--leak-check=full", "--show-leak-kinds=definite", "--errors-for-leak-kinds=definite",
            "--num-callers=40", f"--suppressions={HERE / 'memcheck.supp'}",
            f"--log-file={self.folder}/valgrind-%p", *super().command(program, arguments),
        ]  # fmt: skip


def answer_of(request):
    """Returns the service's answer to an account's request; None for the default."""
    answers = {
        "failed": Answer(500, b"out of order \xff" + b"x" * 9000),
        "moved": Answer(302, headers=(("Location", "https://localhost:1/"),)),
        "endless": Answer(200, [b"x" * 50_000] * 20),
        "cut": Answer(200, b"x" * 100, drop=Stage.ANSWER_BODY, drop_after=10),
        "broken": Answer(raw=b"HTTP/1.1 two hundred\r\n\r\n"),
    }
    return answers.get(request.account)


def lay_out(machine, certificates):
    machine.switch_log_on(OutputLogSize=2000)
    machine.trust(certificates.authority)
    for name in ("failed", "moved", "endless", "cut", "broken", "plain", "refused"):
        machine.account(name)
    stored = machine.client_certificate("user", certificates.client)
    machine.account("certificate", cert=stored)
    pfx = base64.b64encode(certificates.client.pfx()).decode("ascii")
    machine.account("pfx", cert={"base64encoded": pfx})
    machine.account("unsealed", seal=False)
    machine.account("no-json")
    machine.seal_text("no-json", '{"apikey":')
    machine.account("empty")
    for name in machine.accounts:
        if name != "empty":
            machine.logs(name, "a.log", "b.log")
    machine.log("plain", "large.log", b"line\n" * (LARGE // 5))
    machine.log("plain", "nothing.log", b"")


def run_twice(machine, service):
    service.decide = answer_of
    machine.accounts["refused"] = dataclasses.replace(machine.accounts["refused"], refused=True)
    machine.run(seconds=RUN_SECONDS)
    for name in ("plain", "certificate", "pfx"):
        assert machine.is_archived(name, "a.log"), f"{name} was not archived"
    assert not machine.credential("refused").exists()
    machine.run_forced()
    assert machine.archive("failed", "a.log.bak").exists()


def main():
    bin_folder = ROOT / "build" / "linux" / "bin"
    with tempfile.TemporaryDirectory(prefix="kyd-memcheck-") as name:
        folder = Path(name)
        platform = LinuxUnderValgrind(folder / "platform", bin_folder, bin_folder)
        platform.folder.mkdir()
        platform.start()
        certificates = CertificateFactory(folder)
        machine = Machine(platform, folder / "machine")
        lay_out(machine, certificates)
        failure = None
        with LogService(certificates.server) as service:
            service.accounts = machine.accounts.values()
            machine.tenant = service.tenant
            try:
                run_twice(machine, service)
            except AssertionError as error:
                failure = error
        report = platform.report()
    print(report)
    if failure:
        print(f"valgrind: {failure}")
    print(f"valgrind: {'failed' if failure or report else 'no errors, nothing lost'}")
    return 1 if failure or report else 0
