"""KydUploadStatus: the real executable, together with the real uploader."""

import ctypes
import datetime
import json
import os
import re
import select
import signal
import subprocess
import tempfile
import time

import pytest

from service.log_service import Answer

from .platforms import wait_until
from .status_tool import (
    CRITICAL,
    HOUR,
    MANY,
    OK,
    SECONDS,
    UNKNOWN,
    USAGE,
    WARNING,
    command,
    day_before,
    make_older,
    of_account,
    of_day,
    result,
    result_path,
    run_at_little_cost,
    run_bare,
    status,
    write_result,
)
from .test_binary import project_version


# Together with the uploader.


def test_reports_what_a_run_has_done(machine, service):
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    machine.account("bob")
    machine.log("bob", "c.log", b"seven b")
    machine.account("carol", seal=False, archive=False)
    service.decide = lambda request: Answer(500 if b"seven b" in request.body else 200)
    start = datetime.date.today()
    machine.run()
    finished = status(machine, "--json", "--days", "2")
    report = finished.json()
    assert finished.code == OK and finished.errors == ""
    assert [one["name"] for one in report["accounts"]] == ["alice", "bob", "carol"]
    alice, bob, carol = report["accounts"]
    assert alice["waiting"] == {"files": 0, "bytes": 0, "oldest": None, "oldestAgeSeconds": None}
    assert alice["archive"] == {"folder": True, "files": 2, "notSent": 0}
    assert bob["waiting"]["files"] == 1 and bob["waiting"]["bytes"] == 7
    assert 0 <= bob["waiting"]["oldestAgeSeconds"] < 120
    assert (bob["errors"], bob["lastErrorDay"] is not None) == (1, True)
    assert carol["archive"] == {"folder": False, "files": 0, "notSent": 0}
    assert [one["credentials"] for one in report["accounts"]] == [True, True, False]
    # Around midnight, the run may be counted for either day.
    run_day = next(one for one in report["days"] if one["runs"])
    assert run_day["date"] >= f"{start:%Y-%m-%d}"
    assert (run_day["runs"], run_day["folders"], run_day["sent"], run_day["errors"]) == (1, 3, 2, 1)
    assert run_day["accountsWithErrors"] == [{"name": "bob", "errors": 1}]
    assert run_day["unfinishedBlocks"] == 0 and run_day["strangeLines"] == 0
    assert report["totals"]["sent"] == 2 and report["totals"]["waiting"]["files"] == 1


def test_distinguishes_flushed_from_sent_files(machine, service):
    machine.account("alice")
    machine.log("alice", "a.log")
    machine.run()
    machine.log("alice", "b.log")
    service.decide = lambda request: Answer(503)
    machine.run_forced()
    report = status(machine, "--json").json()
    assert of_account(report, "alice")["archive"] == {"folder": True, "files": 2, "notSent": 1}


def test_works_during_a_run(machine, service):
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    seen = []

    def answer(request):
        seen.append(status(machine, "--json"))
        return Answer(200)

    service.decide = answer
    machine.run()
    assert [one.code for one in seen] == [OK, OK]
    assert [one.json()["totals"]["waiting"]["files"] for one in seen] == [2, 1]
    assert machine.is_archived("alice", "a.log") and machine.is_archived("alice", "b.log")


class OpenWatch:
    """Detects that a file is opened, through inotify(7), which needs no rights to the file."""

    OPENED = 0x20

    def __init__(self, path):
        library = ctypes.CDLL(None, use_errno=True)
        self._descriptor = library.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        assert self._descriptor >= 0
        watch = library.inotify_add_watch(self._descriptor, os.fsencode(path), self.OPENED)
        assert watch >= 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self._descriptor)

    def was_opened(self):
        try:
            return bool(os.read(self._descriptor, 4096))
        except BlockingIOError:
            return False


def test_never_opens_a_credential_file(machine, service):
    machine.account("alice")
    machine.log("alice", "a.log")
    with OpenWatch(machine.credential("alice")) as watch:
        page = machine.folder / "page.html"
        program = subprocess.run(
            command(machine, machine.native(), "--html", machine.platform.native_path(page)),
            env=machine.environment, stdin=subprocess.DEVNULL, capture_output=True,
            timeout=SECONDS, check=False,
        )
        assert program.returncode == OK and page.exists()
        assert not watch.was_opened()
        # The uploader opens it, which shows that the watch works.
        with machine.start() as running:
            running.wait_for_good_end()
        assert watch.was_opened()


# The contents of the tree.


def test_half_written_blocks(machine):
    today = day_before(0)
    before = result(day_before(1), 10, 0)
    whole = result(today, 20, 3, [("alice", 2), ("bob", 1)])
    counts = whole.index("Upload error") + len("Upload error    : 3\r\n\r\n")
    # Cut within a line, within a number, at the end of a line, within the account list.
    for size in (1, 60, counts - 9, counts - 2, counts + 30, len(whole) - 20, len(whole) - 1):
        write_result(machine, day_before(1), before, whole[:size])
        report = status(machine, "--json").json()
        day = of_day(report, day_before(1))
        assert (day["runs"], day["sent"]) == ((2, 30) if size >= counts else (1, 10))
        assert day["unfinishedBlocks"] == 1
    # Cut within a character.
    content = (before + whole).encode("utf-16-le")
    result_path(machine, day_before(1)).write_bytes(content[:-1])
    assert of_day(status(machine, "--json").json(), day_before(1))["sent"] == 30


def test_foreign_files(machine):
    machine.account("alice")
    machine.log("alice", "a.log")
    machine.upload("alice", "notes.txt").write_bytes(b"not a log")
    machine.upload("alice", "folder.log").mkdir()
    machine.upload("stray.log").write_bytes(b"in no account")
    machine.upload("NoSent_LogFiles").mkdir()
    (machine.upload("NoSent_LogFiles") / "x.log").write_bytes(b"never sent")
    machine.archived("alice", "notes.txt")
    (machine.log_dir / "UploadResult" / "UploadResult.log").write_bytes(b"no day")
    result_path(machine, day_before(1)).write_bytes(os.urandom(50_001))
    result_path(machine, day_before(2)).write_bytes(b"\xff\xfe" + "text\r\n".encode("utf-16-le"))
    finished = status(machine, "--json")
    report = finished.json()
    assert finished.code == OK
    assert [one["name"] for one in report["accounts"]] == ["alice"]
    assert report["totals"]["waiting"]["files"] == 1
    assert report["totals"]["archived"] == 0
    assert report["totals"]["runs"] == 0
    assert of_day(report, day_before(2))["strangeLines"] == 1


def test_result_file_that_is_a_folder_cannot_be_read(machine):
    result_path(machine, day_before(1)).mkdir()
    write_result(machine, day_before(2), result(day_before(2), 7, 0))
    finished = status(machine, "--json")
    report = finished.json()
    assert finished.code == UNKNOWN and report["state"] == "unknown"
    native = machine.platform.native_path(result_path(machine, day_before(1)))
    assert report["unreadable"] == [{"path": native, "error": 5}]
    assert of_day(report, day_before(2))["sent"] == 7


def test_names_of_all_kinds(machine):
    names = ["a b", "zo\u00eb \u20ac", "\U0001f600", "x" * 200]
    for name in names:
        machine.account(name)
        machine.log(name, "a.log")
    write_result(
        machine, day_before(1), result(day_before(1), 0, 4, [(name, 1) for name in names])
    )
    report = status(machine, "--json").json()
    assert {(one["name"], one["errors"]) for one in report["accounts"]} == {
        (name, 1) for name in names
    }


def test_log_directory_of_any_name(machine):
    names = ["gr\u00fc\u00dfe \u20ac"]
    if machine.platform.name == "linux":
        names.append(os.fsdecode(b"not utf-8 \xff"))
    for name in names:
        folder = machine.folder / name
        (folder / "Upload" / "alice").mkdir(parents=True)
        (folder / "Upload" / "alice" / "a.log").write_bytes(b"123")
        report = status(machine, "--json", log_dir=folder).json()
        assert report["totals"]["waiting"]["bytes"] == 3


def test_names_cannot_control_the_terminal(machine):
    if machine.platform.name == "windows":
        pytest.skip("Windows does not allow such names")
    machine.account("a\x1b[2Jb\nc")
    output = status(machine).output
    assert "\x1b" not in output and "a\ufffd[2Jb\ufffdc" in output


# As an ordinary user: permissions do not restrict root.


def test_credential_file_without_permissions_is_found(ordinary):
    ordinary.write("logs/LogWork/alice/UserData.dat", b"sealed").chmod(0)
    finished = ordinary("--json")
    assert finished.code == OK
    assert of_account(finished.json(), "alice")["credentials"] is True
    assert of_account(finished.json(), "bob")["credentials"] is False


def test_unreadable_folders(ordinary):
    ordinary.write("logs/Upload/bob/b.log", b"12345")
    for path in ("Upload/alice", "Archive/alice", "LogWork/alice"):
        (ordinary.tree / path).chmod(0)
    finished = ordinary("--json", "--max-age", "1")
    report = finished.json()
    assert finished.code == UNKNOWN
    assert of_account(report, "bob")["waiting"]["files"] == 1
    assert of_account(report, "alice")["credentials"] is None
    assert sorted((one["path"], one["error"]) for one in report["unreadable"]) == [
        (f"{ordinary.tree}/Archive/alice", 5),
        (f"{ordinary.tree}/LogWork/alice/UserData.dat", 5),
        (f"{ordinary.tree}/Upload/alice", 5),
    ]


def test_unreadable_archive_is_not_missing(ordinary):
    (ordinary.tree / "Archive").chmod(0)
    finished = ordinary("--json")
    assert finished.code == UNKNOWN
    for name in ("alice", "bob"):
        assert of_account(finished.json(), name)["archive"]["folder"] is True
    assert len(finished.json()["unreadable"]) == 2


# The command line.


def test_limits_turn_the_report_into_a_check(machine):
    machine.account("alice")
    machine.logs("alice", "new.log", "old.log")
    make_older(machine, "alice", "old.log", 30 * HOUR)
    write_result(machine, day_before(1), result(day_before(1), 5, 8, [("alice", 8)]))
    wanted = {
        (): OK,
        ("--max-age", "31"): OK,
        ("--max-age", "29"): WARNING,
        ("--max-age", "14"): CRITICAL,
        ("--max-errors", "8"): OK,
        ("--max-errors", "7"): WARNING,
        ("--max-errors", "3"): CRITICAL,
        ("--max-errors", "3", "--days", "1"): OK,
        ("--max-age", "29", "--max-errors", "3"): CRITICAL,
    }
    words = {OK: "OK: ", WARNING: "WARNING: ", CRITICAL: "CRITICAL: "}
    for arguments, code in wanted.items():
        finished = status(machine, *arguments)
        assert (arguments, finished.code) == (arguments, code)
        assert finished.output.startswith(words[code])
        assert finished.errors == ""
    first = status(machine, "--max-age", "29", "--max-errors", "3").output.splitlines()[0]
    assert first == (
        "CRITICAL: 1 account has waited longer than 1 d 5 h, alice the longest: 1 d 6 h; "
        "8 failed uploads in 7 days (limit: 3); 2 files wait, the oldest for 1 d 6 h; "
        "5 sent and 8 failed in 7 days"
    )


def test_missing_tree(machine):
    finished = status(machine, log_dir=machine.folder / "nowhere")
    assert finished.code == UNKNOWN
    assert finished.output.startswith("UNKNOWN: 1 folder or file could not be read")
    assert finished.output.splitlines()[-1].endswith("Upload (missing)")


def test_empty_tree(machine):
    finished = status(machine)
    assert finished.code == OK
    assert "No accounts" in finished.output


def test_help_and_version(machine):
    for option in ("--help", "-h"):
        finished = run_bare(machine, option)
        assert (finished.code, finished.errors) == (0, "")
        for word in ("LogDir", "--days", "--json", "--html", "--max-age", "--max-errors",
                     "--openmetrics", "--per-account"):
            assert word in finished.output
    finished = run_bare(machine, "--version")
    assert (finished.code, finished.errors) == (0, "")
    assert finished.output.strip() == f"KydUploadStatus {project_version()}"


@pytest.mark.parametrize(
    "arguments", [(), ("a", "b"), ("a", "--days", "0"), ("a", "--max-age"), ("a", "--nonsense")]
)
def test_wrong_usage(machine, arguments):
    finished = run_bare(machine, *arguments)
    assert (finished.code, finished.output) == (USAGE, "")
    assert finished.errors.startswith("KydUploadStatus: ") and "--help" in finished.errors


def test_report_that_cannot_be_written(machine):
    if machine.platform.name == "windows":
        pytest.skip("Windows has no device that is always full")
    with open("/dev/full", "wb") as full:
        finished = subprocess.run(
            command(machine, machine.native()), stdin=subprocess.DEVNULL, stdout=full,
            stderr=subprocess.PIPE, env=machine.environment, timeout=SECONDS, check=False,
        )
    assert finished.returncode == UNKNOWN
    assert finished.stderr == b"KydUploadStatus: cannot print the report (error 112)\n"


# Large trees.

def test_many_files_take_little_time_and_memory(machine, many_files):
    if machine.platform.name == "windows":
        pytest.skip("this would measure Wine's folder search")
    if machine.platform.is_built_with("asan", "tsan"):
        pytest.skip("this build needs additional memory")
    printed = run_at_little_cost(machine, many_files, "--json")
    waiting = json.loads(printed)["totals"]["waiting"]
    assert (waiting["files"], waiting["bytes"]) == (MANY, MANY * 4096)


def test_progress_is_shown_on_a_terminal_and_erased(machine, many_files):
    if machine.platform.name == "windows":
        pytest.skip("Wine has no terminals")
    import pty  # not available on Windows

    controller, terminal = pty.openpty()
    with tempfile.TemporaryFile() as output:
        process = subprocess.Popen(
            command(machine, many_files), stdin=subprocess.DEVNULL, stdout=output, stderr=terminal,
            env=machine.environment,
        )
        os.close(terminal)
        # Slow the tool down to observe it at work.
        folder = f"/proc/{process.pid}/fd"
        at_work = os.fspath(many_files / "Upload" / "alice")
        assert wait_until(lambda: at_work in links_in(folder), 20)
        process.send_signal(signal.SIGSTOP)
        time.sleep(1.2)
        process.send_signal(signal.SIGCONT)
        assert process.wait(SECONDS) == OK
    shown = b""
    while select.select([controller], [], [], 0)[0]:
        try:
            piece = os.read(controller, 4096)
        except OSError:  # the other end is closed
            break
        shown += piece
    os.close(controller)
    assert re.match(rb"\rLooked at \d+ files \.\.\.", shown)
    assert re.search(rb"\r +\r$", shown)


def links_in(folder):
    found = set()
    try:
        for name in os.listdir(folder):
            found.add(os.readlink(os.path.join(folder, name)))
    except OSError:  # the process has ended
        pass
    return found


def test_no_progress_without_a_terminal(machine):
    assert status(machine).errors == ""
