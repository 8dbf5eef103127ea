#!/usr/bin/python3
"""Runs the program once against a local log service and shows what happened.

Everything is created in a temporary folder: certificates, a log tree with sealed credentials for several
accounts, settings that turn on the diagnostic log. The demo checks the outcome, reports any difference and
then exits with code 1.
"""

import argparse
import dataclasses
import os
import sys
import tempfile
import textwrap
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests"))

from e2e.harness import Machine  # noqa: E402 (the path must be set first)
from e2e.platforms import PLATFORMS  # noqa: E402
from service.certificates import CertificateFactory  # noqa: E402
from service.log_service import Answer, LogService  # noqa: E402

WIDTH = 100
NEVER_SENT = "NoSent_LogFiles"

LOGS = {
    ("alice", "desktop.log"): "09:03:07 signed in to the desktop\r\n",
    ("alice", "portal.log"): "09:03:09 portal opened\r\n09:41:55 portal closed\r\n",
    ("bob", "desktop.log"): "09:12:30 signed in to the desktop\r\n",
    ("bob", "portal.log"): "09:12:44 portal opened\r\n",
    ("carol", "desktop.log"): "10:01:02 signed in to the desktop\r\n",
    ("dave", "desktop.log"): "10:30:00 signed in to the desktop\r\n",
}

STORY = """\
Four accounts have log files waiting in Upload:
  alice  is known to the service; both files will be accepted
  bob    is known as well, but the service fails with 500 on one of the two files
  carol  has credentials that the service refuses with 401
  dave   has no credential file at all
The folder NoSent_LogFiles is never sent."""


class Paper:
    """Prints plain text to a pipe, with some colour to a terminal."""

    def __init__(self, stream):
        self._stream = stream
        self._colours = stream.isatty() and "NO_COLOR" not in os.environ

    def line(self, text=""):
        print(text, file=self._stream, flush=True)

    def heading(self, text):
        self.line()
        self.line(self._painted(text, "1"))
        self.line(self._painted("-" * len(text), "2"))

    def good(self, text):
        return self._painted(text, "32")

    def bad(self, text):
        return self._painted(text, "31")

    def faint(self, text):
        return self._painted(text, "2")

    def folded(self, text, indent=4):
        """Prints a line, wrapped to the page width."""
        for line in textwrap.wrap(
            text, WIDTH, subsequent_indent=" " * indent, break_on_hyphens=False
        ) or [""]:
            self.line(line)

    def _painted(self, text, code):
        return f"\033[{code}m{text}\033[0m" if self._colours else text


def lay_out(machine):
    """Creates the sample tree; returns the relative names expected after the run."""
    for name in ("alice", "bob", "carol", "dave"):
        machine.account(name, seal=name != "dave")
    machine.accounts["carol"] = dataclasses.replace(machine.accounts["carol"], refused=True)
    for (account, name), text in LOGS.items():
        machine.log(account, name, text.encode("utf-8"))
    machine.upload(NEVER_SENT).mkdir()
    machine.upload(NEVER_SENT, "internal.log").write_text("stays here\r\n")
    machine.switch_log_on()

    wanted = set(machine.snapshot())
    for account, name in (("alice", "desktop.log"), ("alice", "portal.log"), ("bob", "portal.log")):
        wanted.remove(os.path.join("Upload", account, name))
        wanted.add(os.path.join("Archive", account, name))
    wanted.remove(os.path.join("LogWork", "carol", "UserData.dat"))
    return wanted


def decide(request):
    """Fails one request; None leaves all others to the service."""
    if request.body == LOGS["bob", "desktop.log"].encode("utf-8"):
        return Answer(500, b"the service is out of order", (("Content-Type", "text/plain"),))
    return None


def tree_rows(before, after):
    """Returns rows of (displayed name, exists before, exists after), in tree order."""
    rows = []
    for name in sorted(set(before) | set(after), key=lambda name: name.split(os.sep)):
        depth = name.count(os.sep)
        folder = (before.get(name) or after.get(name)) == "folder"
        shown = "  " * (depth + 1) + os.path.basename(name) + (os.sep if folder else "")
        rows.append((shown, name in before, name in after))
    return rows


def show_tree(paper, before, after):
    half = WIDTH // 2
    paper.heading("The log tree before and after the run")
    paper.line(f"{'KydLog' + os.sep:{half}}KydLog{os.sep}")
    for shown, was, is_now in tree_rows(before, after):
        left = f"{shown if was else '':{half}}"
        right = shown if is_now else ""
        if was and not is_now:
            left = paper.bad(left)
        elif is_now and not was:
            right = paper.good(right)
        paper.line((left + right).rstrip())


def file_of(body):
    """Identifies the sample file by its content: requests do not contain file names."""
    for (account, name), text in LOGS.items():
        if text.encode("utf-8") == body:
            return f"{account}/{name}"
    return "?"


def show_requests(paper, service):
    paper.heading("What the service received (one HTTPS POST per file)")
    paper.line(f"{'':4}{'credentials of':17}{'file':24}{'bytes':>6}   {'TLS':10}answered")
    for request in service.requests:
        text = str(request.status)
        answer = paper.good(text) if request.status in (200, 202) else paper.bad(text)
        paper.line(
            f"{request.number:2}. {request.account or 'unknown':17}"
            f"{file_of(request.body):24}{len(request.body):6}   "
            f"{request.connection.tls_version:10}{answer}"
        )


def show_files(paper, machine):
    paper.heading("The day's result file")
    for path in machine.result_files():
        paper.line(paper.faint(os.path.relpath(path, machine.log_dir)))
        for line in path.read_bytes().decode("utf-16-le").rstrip("\r\n").split("\r\n"):
            paper.folded(line, 8)
    paper.heading("The diagnostic log (long lines are wrapped)")
    if machine.diagnostic_log.exists():
        for line in machine.diagnostic_log.read_text("utf-8-sig").splitlines():
            show_log_line(paper, line)


def show_log_line(paper, line):
    if len(line) <= WIDTH:
        paper.line(line)
        return
    *prefix, message = line.split(", ", 4)
    paper.line(", ".join(prefix) + ",")
    paper.line(textwrap.fill("    " + message, WIDTH, subsequent_indent="    "))


def judge(machine, service, wanted):
    """Returns (expectation, whether it is met) pairs."""
    result = b"".join(path.read_bytes() for path in machine.result_files()).decode("utf-16-le")
    log = machine.messages() if machine.diagnostic_log.exists() else []
    answers = sorted((file_of(one.body), one.status) for one in service.requests)
    return [
        (
            "five files were sent, each once, and answered as planned",
            answers
            == [
                ("alice/desktop.log", 200),
                ("alice/portal.log", 200),
                ("bob/desktop.log", 500),
                ("bob/portal.log", 200),
                ("carol/desktop.log", 401),
            ],
        ),
        (
            "every request went over TLS 1.2 with the account's own credentials",
            all(
                one.connection.tls_version == "TLSv1.2"
                and one.account == file_of(one.body).split("/")[0]
                for one in service.requests
            ),
        ),
        (
            "accepted files are in the archive, all others are still in Upload",
            _is_tree(machine, wanted),
        ),
        ("carol's refused credentials are gone", not machine.credential("carol").exists()),
        (
            "the result file counts 3 sent, 2 failed, and names bob and carol",
            "Upload success  : 3" in result
            and "Upload error    : 2" in result
            and "[bob / 1]" in result
            and "[carol / 1]" in result,
        ),
        (
            "the diagnostic log ends with the same counts",
            log[-3:-1]
            == [
                "<< Result >> accounts:[4] send :[3] no send :[1]",
                "<< Result >> files send ok:[3] send error:[2]",
            ],
        ),
        (
            "no file that was written contains a key or a session",
            _is_free_of_secrets(machine),
        ),
    ]


def _is_tree(machine, wanted):
    result_files = {os.path.relpath(path, machine.log_dir) for path in machine.result_files()}
    return set(machine.snapshot()) - result_files == wanted


def _is_free_of_secrets(machine):
    written = machine.all_bytes()
    secrets = [
        secret for one in machine.accounts.values() for secret in (one.apikey, one.idp_session)
    ]
    return not any(
        secret.encode(coding) in written for secret in secrets for coding in ("utf-8", "utf-16-le")
    )


def make_platform(options, folder):
    kind = PLATFORMS[options.platform]
    native = options.native_bin or (options.bin if kind.runs_here else ROOT / "build/linux/bin")
    return kind(folder, options.bin, native)


def run_demo(paper, options, folder):
    platform = make_platform(options, folder / "platform")
    missing = type(platform).missing(platform.bin_folder, platform.native_bin_folder)
    if missing is not None:
        paper.line(f"{missing} is missing: build first")
        return 1
    if platform.name == "windows" and not platform.prefix.exists():
        paper.line("Setting up Wine (the first time takes a while)")
    platform.start()
    try:
        machine_folder = folder / "demo"
        machine_folder.mkdir()
        machine = Machine(platform, machine_folder)
        wanted = lay_out(machine)
        identity = CertificateFactory(folder / "certificates").server
        with LogService(identity, accounts=machine.accounts.values()) as service:
            service.decide = decide
            return show_run(paper, machine, service, wanted)
    finally:
        platform.stop()


def show_run(paper, machine, service, wanted):
    machine.tenant = service.tenant
    before = machine.snapshot()
    paper.line(STORY)
    paper.heading("The run")
    command = [machine.platform.program_name, machine.tenant, machine.native()]
    paper.folded(" ".join(command))
    failure = None
    try:
        machine.run()
        paper.line("exited with code 0 and no output")
    except AssertionError as error:
        failure = str(error)
        paper.line(paper.bad(failure))
    show_tree(paper, before, machine.snapshot())
    show_requests(paper, service)
    show_files(paper, machine)
    paper.heading("Checks")
    verdicts = judge(machine, service, wanted)
    for sentence, is_so in verdicts:
        paper.line(f"  {paper.good('yes') if is_so else paper.bad('NO ')}  {sentence}")
    return 0 if failure is None and all(is_so for _, is_so in verdicts) else 1


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--platform", choices=tuple(PLATFORMS), default="linux")
    parser.add_argument("--bin", type=Path, required=True, help="folder of the built program")
    parser.add_argument("--native-bin", type=Path, help="folder of the native sealing tool")
    options = parser.parse_args()
    options.bin = options.bin.resolve()
    # A short path keeps the log lines short.
    with tempfile.TemporaryDirectory(prefix="kyd-") as folder:
        return run_demo(Paper(sys.stdout), options, Path(folder).resolve())


if __name__ == "__main__":
    sys.exit(main())
