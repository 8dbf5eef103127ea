"""KydUploadStatus, the tool that looks at the tree: the real executable, beside the real uploader."""

import ctypes
import datetime
import json
import os
import pty
import re
import select
import shutil
import signal
import struct
import subprocess
import tempfile
import time
import xml.etree.ElementTree
import zlib
from pathlib import Path

import pytest

from service.log_service import Answer

from .platforms import wait_until
from .result_text import block
from .test_binary import project_version

OK, WARNING, CRITICAL, UNKNOWN, USAGE = 0, 1, 2, 3, 64
HOUR = 3600
SECONDS = 60


class Finished:
    """What a run of the tool has said."""

    def __init__(self, code, output, errors):
        self.code = code
        self.output = output.decode("utf-8")
        self.errors = errors.decode("utf-8")

    def json(self):
        return json.loads(self.output)


def command(machine, *arguments):
    program = machine.program_folder / machine.platform.status_name
    return machine.platform.command(program, arguments)


def status(machine, *arguments, log_dir=None):
    """A run of the tool, which never writes below the log directory."""
    log_dir = machine.log_dir if log_dir is None else log_dir
    before = stamps(machine)
    finished = subprocess.run(
        command(machine, machine.platform.native_path(log_dir), *arguments),
        env=machine.environment,
        cwd=machine.working_folder,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        timeout=SECONDS,
        check=False,
    )
    assert stamps(machine) == before
    errors = machine.platform.own_output(finished.stderr)
    return Finished(finished.returncode, finished.stdout, errors)


def stamps(machine):
    """Everything that a change would show in."""
    found = machine.snapshot()
    for name in found:
        status_of = (machine.log_dir / name).lstat()
        found[name] = (found[name], status_of.st_mtime_ns, status_of.st_mode, status_of.st_size)
    return found


def day_before(days):
    return datetime.date.today() - datetime.timedelta(days=days)


def result_path(machine, day):
    return machine.log_dir / "UploadResult" / f"UploadResult{day:%Y%m%d}.log"


def result(day, sent, failed, errors=()):
    return block(
        f"{day:%Y:%m:%d} 08:00:00", total=3, target=2, not_subject=1, success=sent, error=failed,
        log_dir="x", errors=errors,
    )


def write_result(machine, day, *blocks):
    result_path(machine, day).write_bytes("".join(blocks).encode("utf-16-le"))


def of_day(report, day):
    return next(one for one in report["days"] if one["date"] == f"{day:%Y-%m-%d}")


def of_account(report, name):
    return next(one for one in report["accounts"] if one["name"] == name)


def make_older(machine, account, name, seconds):
    then = time.time() - seconds
    os.utime(machine.upload(account, name), (then, then))


# Beside the uploader.


def test_tells_what_a_run_has_done(machine, service):
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
    # Around midnight the run may have been on either day.
    run_day = next(one for one in report["days"] if one["runs"])
    assert run_day["date"] >= f"{start:%Y-%m-%d}"
    assert (run_day["runs"], run_day["folders"], run_day["sent"], run_day["errors"]) == (1, 3, 2, 1)
    assert run_day["accountsWithErrors"] == [{"name": "bob", "errors": 1}]
    assert run_day["unfinishedBlocks"] == 0 and run_day["strangeLines"] == 0
    assert report["totals"]["sent"] == 2 and report["totals"]["waiting"]["files"] == 1


def test_tells_flushed_files_from_sent_ones(machine, service):
    machine.account("alice")
    machine.log("alice", "a.log")
    machine.run()
    machine.log("alice", "b.log")
    service.decide = lambda request: Answer(503)
    machine.run_forced()
    report = status(machine, "--json").json()
    assert of_account(report, "alice")["archive"] == {"folder": True, "files": 2, "notSent": 1}


def test_looks_on_while_a_run_is_at_work(machine, service):
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
    """Who opens a file: inotify(7), without rights to the file or a part in what opens it."""

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
        # The uploader does: what is watched is the right thing.
        with machine.start() as running:
            running.wait_for_good_end()
        assert watch.was_opened()


# What lies in the tree.


def test_half_written_blocks(machine):
    today = day_before(0)
    before = result(day_before(1), 10, 0)
    whole = result(today, 20, 3, [("alice", 2), ("bob", 1)])
    counts = whole.index("Upload error") + len("Upload error    : 3\r\n\r\n")
    # In the middle of a line, of a number, at the end of a line, in the list of the accounts.
    for size in (1, 60, counts - 9, counts - 2, counts + 30, len(whole) - 20, len(whole) - 1):
        write_result(machine, day_before(1), before, whole[:size])
        report = status(machine, "--json").json()
        day = of_day(report, day_before(1))
        assert (day["runs"], day["sent"]) == ((2, 30) if size >= counts else (1, 10))
        assert day["unfinishedBlocks"] == 1
    # In the middle of a character.
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


def test_terminal_is_not_steered_by_names(machine):
    if machine.platform.name == "windows":
        pytest.skip("Windows has no such names")
    machine.account("a\x1b[2Jb\nc")
    output = status(machine).output
    assert "\x1b" not in output and "a\ufffd[2Jb\ufffdc" in output


# As an ordinary user: rights do not bind the superuser.


@pytest.fixture
def ordinary(machine):
    """Runs the tool over a tree as a user who is nobody special."""
    if machine.platform.name == "windows":
        pytest.skip("Wine knows the rights of the one user only who runs it")
    folder = Path(tempfile.mkdtemp())
    folder.chmod(0o755)
    tree = folder / "logs"
    for path in ("Upload/alice", "Upload/bob", "Archive/alice", "Archive/bob", "LogWork/alice",
                 "UploadResult"):
        (tree / path).mkdir(parents=True)
    program = folder / "KydUploadStatus"
    shutil.copy2(machine.program_folder / machine.platform.status_name, program)

    def run(*arguments):
        switch = {"user": 65534, "group": 65534, "extra_groups": []} if os.getuid() == 0 else {}
        finished = subprocess.run(
            [program, tree, *arguments], cwd="/", stdin=subprocess.DEVNULL, capture_output=True,
            timeout=SECONDS, check=False, env=machine.environment, **switch,
        )
        return Finished(finished.returncode, finished.stdout, finished.stderr)

    run.tree = tree
    try:
        yield run
    finally:
        for path in (tree, *tree.rglob("*")):
            if path.is_dir():
                path.chmod(0o755)
        shutil.rmtree(folder)


def test_credential_file_without_any_rights_is_seen(ordinary):
    credential = ordinary.tree / "LogWork/alice/UserData.dat"
    credential.write_bytes(b"sealed")
    credential.chmod(0)
    finished = ordinary("--json")
    assert finished.code == OK
    assert of_account(finished.json(), "alice")["credentials"] is True
    assert of_account(finished.json(), "bob")["credentials"] is False


def test_folders_that_may_not_be_read(ordinary):
    (ordinary.tree / "Upload/bob/b.log").write_bytes(b"12345")
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


def test_archive_that_may_not_be_read_is_not_missing(ordinary):
    (ordinary.tree / "Archive").chmod(0)
    finished = ordinary("--json")
    assert finished.code == UNKNOWN
    for name in ("alice", "bob"):
        assert of_account(finished.json(), name)["archive"]["folder"] is True
    assert len(finished.json()["unreadable"]) == 2


# The command line.


def test_limits_make_a_check_of_it(machine):
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
        "CRITICAL: 1 account waits longer than 1 d 5 h, alice the longest: 1 d 6 h; "
        "8 failed uploads in 7 days, allowed are 3; 2 files wait, the oldest for 1 d 6 h; "
        "5 sent and 8 failed in 7 days"
    )


def test_tree_that_is_not_there(machine):
    finished = status(machine, log_dir=machine.folder / "nowhere")
    assert finished.code == UNKNOWN
    assert finished.output.startswith("UNKNOWN: 1 folder or file could not be read")
    assert finished.output.splitlines()[-1].endswith("Upload (missing)")


def test_empty_tree(machine):
    finished = status(machine)
    assert finished.code == OK
    assert "No accounts" in finished.output


def run_bare(machine, *arguments):
    finished = subprocess.run(
        command(machine, *arguments), env=machine.environment, cwd=machine.working_folder,
        stdin=subprocess.DEVNULL, capture_output=True, timeout=SECONDS, check=False,
    )
    return Finished(
        finished.returncode, finished.stdout, machine.platform.own_output(finished.stderr)
    )


def test_help_and_version(machine):
    for option in ("--help", "-h"):
        finished = run_bare(machine, option)
        assert (finished.code, finished.errors) == (0, "")
        for word in ("LogDir", "--days", "--json", "--html", "--max-age", "--max-errors"):
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


# The page.


def page_of(machine, *arguments):
    path = machine.folder / "p\u00e4ge.html"
    finished = status(machine, "--html", machine.platform.native_path(path), *arguments)
    assert not path.with_name(path.name + ".new").exists()
    return finished, path


def texts_of(element):
    return " ".join("".join(element.itertext()).split())


def test_page_tells_the_same(machine):
    account = "carol & dave" if machine.platform.name == "windows" else "<b>&\"'\x01;"
    shown = account.replace("\x01", "\ufffd")
    machine.account(account)
    machine.log(account, "a.log", b"x" * 2048)
    make_older(machine, account, "a.log", 30 * HOUR)
    write_result(machine, day_before(1), result(day_before(1), 5, 3, [(account, 3)]))
    finished, path = page_of(machine, "--max-age", "20")
    assert finished.code == WARNING
    # It is well-formed: nothing that comes from outside is markup.
    page = xml.etree.ElementTree.fromstring(path.read_text("utf-8"))
    assert page.get("lang") == "en"
    assert texts_of(page.find("head/title")) == "WARNING: log upload status"
    assert texts_of(page.find(".//span[@class='state warning']")) == "WARNING"
    accounts, days = page.iter("table")
    rows = [[texts_of(cell) for cell in row] for row in accounts.iter("tr")]
    assert rows[0] == ["Account", "Waiting", "Size", "Oldest", "Archived", "Not sent",
                       "Credentials", "Failed"]
    assert rows[1] == [shown, "1", "2.0 KiB", "1 d 6 h", "0", "0", "yes", "3"]
    rows = [[texts_of(cell) for cell in row] for row in days.iter("tr")]
    assert rows[2] == [f"{day_before(1):%Y-%m-%d}", "1", "3", "5", "3", "1"]
    assert len(rows) == 8
    svg = "{http://www.w3.org/2000/svg}"
    (chart,) = page.iter(f"{svg}svg")
    assert chart.get("role") == "img" and chart.get("aria-label")
    bars = [bar.get("class") for bar in chart.iter(f"{svg}rect") if bar.get("class")]
    assert bars == ["sent", "failed"]


def test_page_needs_nothing_but_itself(machine):
    _, path = page_of(machine)
    page = xml.etree.ElementTree.fromstring(path.read_text("utf-8"))
    for element in page.iter():
        assert element.tag.split("}")[-1] not in {"script", "link", "img", "iframe", "object"}
        assert not {"src", "href", "onclick", "onload", "style"} & set(element.attrib)
    (policy,) = page.iterfind(".//meta[@http-equiv='Content-Security-Policy']")
    assert policy.get("content").startswith("default-src 'none'")
    style = page.find("head/style").text
    assert "url(" not in style and "@import" not in style
    assert "prefers-color-scheme: dark" in style


def test_page_replaces_an_older_one_in_one_step(machine):
    _, path = page_of(machine)
    path.write_bytes(b"x" * 1_000_000)
    older = path.stat().st_ino
    path.with_name(path.name + ".new").write_bytes(b"y" * 1_000_000)
    page_of(machine)
    assert path.read_text("utf-8").endswith("</html>\n")
    assert path.stat().st_ino != older


def test_page_that_cannot_be_written(machine):
    path = machine.folder / "nowhere" / "page.html"
    finished = status(machine, "--html", machine.platform.native_path(path))
    assert finished.code == UNKNOWN
    assert finished.errors.startswith("KydUploadStatus: cannot write ")
    assert finished.errors.rstrip().endswith("(missing)")
    assert "files wait" in finished.output  # the report is there all the same


def test_page_does_not_take_the_place_of_a_folder(machine):
    path = machine.folder / "page.html"
    path.mkdir()
    finished = status(machine, "--html", machine.platform.native_path(path))
    assert finished.code == UNKNOWN and finished.errors.startswith("KydUploadStatus: cannot write ")
    assert path.is_dir()
    assert not path.with_name(path.name + ".new").exists()


def test_report_that_nobody_takes(machine):
    if machine.platform.name == "windows":
        pytest.skip("Windows has no device that is always full")
    with open("/dev/full", "wb") as full:
        finished = subprocess.run(
            command(machine, machine.native()), stdin=subprocess.DEVNULL, stdout=full,
            stderr=subprocess.PIPE, env=machine.environment, timeout=SECONDS, check=False,
        )
    assert finished.returncode == UNKNOWN
    assert finished.stderr == b"KydUploadStatus: cannot print the report (error 112)\n"


def first_pixel(path):
    """The colour in the upper left corner of a PNG picture (RFC 2083): no filter changes it."""
    content = path.read_bytes()
    assert content[:8] == b"\x89PNG\r\n\x1a\n"
    data, at = b"", 8
    while at < len(content):
        length, kind = struct.unpack_from(">I4s", content, at)
        if kind == b"IDAT":
            data += content[at + 8 : at + 8 + length]
        at += 12 + length
    return tuple(zlib.decompress(data)[1:4])


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_browser_shows_the_page_in_both_schemes(machine, scheme):
    browser = shutil.which("chromium")
    if browser is None:
        pytest.skip("no chromium is installed: ./dev setup --browser")
    machine.account("alice")
    machine.log("alice", "a.log")
    write_result(machine, day_before(1), result(day_before(1), 5, 3, [("alice", 3)]))
    _, path = page_of(machine)
    picture = machine.folder / "page.png"
    chosen = {"light": 1, "dark": 0}[scheme]
    subprocess.run(
        [
            browser, "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
            f"--user-data-dir={machine.folder / 'browser'}", "--window-size=1100,1500",
            f"--blink-settings=preferredColorScheme={chosen}", f"--screenshot={picture}",
            path.as_uri(),
        ],
        check=True, timeout=SECONDS, capture_output=True, stdin=subprocess.DEVNULL,
    )
    assert first_pixel(picture) == {"light": (0xF6, 0xF7, 0xF9), "dark": (0x0F, 0x13, 0x19)}[scheme]


# Large trees.

MANY = 100_000


@pytest.fixture(scope="module")
def many_files(tmp_path_factory):
    folder = tmp_path_factory.mktemp("many")
    account = folder / "Upload" / "alice"
    account.mkdir(parents=True)
    (folder / "Archive" / "alice").mkdir(parents=True)
    for number in range(MANY):
        path = account / f"{number}.log"
        descriptor = os.open(path, os.O_WRONLY | os.O_CREAT)
        os.ftruncate(descriptor, 4096)  # without a block on the disk
        os.close(descriptor)
    yield folder
    shutil.rmtree(folder)


def test_many_files_take_little_time_and_no_memory(machine, many_files):
    if machine.platform.name == "windows":
        pytest.skip("Wine's own folder search would be measured")
    program = machine.program_folder / machine.platform.status_name
    if machine.platform.is_built_with("asan", "tsan"):
        pytest.skip("this build needs memory of its own")
    start = time.monotonic()
    finished = subprocess.run(
        # Less than the names alone would take.
        ["prlimit", "--data=2000000", *command(machine, many_files, "--json")],
        env=machine.environment, stdin=subprocess.DEVNULL, capture_output=True, timeout=SECONDS,
        check=False,
    )
    seconds = time.monotonic() - start
    print(f"\n{MANY} waiting files: {seconds:.2f} s in 2 MB")
    assert finished.returncode == OK, finished.stderr
    waiting = json.loads(finished.stdout)["totals"]["waiting"]
    assert (waiting["files"], waiting["bytes"]) == (MANY, MANY * 4096)
    assert seconds < 30


def test_progress_is_shown_on_a_terminal_and_taken_away(machine, many_files):
    if machine.platform.name == "windows":
        pytest.skip("Wine has no terminal to give")
    controller, terminal = pty.openpty()
    with tempfile.TemporaryFile() as output:
        process = subprocess.Popen(
            command(machine, many_files), stdin=subprocess.DEVNULL, stdout=output, stderr=terminal,
            env=machine.environment,
        )
        os.close(terminal)
        # Caught at its work, the tool is made to take long.
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
    except OSError:  # gone meanwhile
        pass
    return found


def test_no_progress_without_a_terminal(machine):
    assert status(machine).errors == ""
