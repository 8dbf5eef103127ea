"""The metrics of KydUploadStatus: values, text, and a file that is complete at any time."""

import datetime
import os
import shutil
import subprocess
import threading
import time

import pytest

from service.log_service import Answer

from . import metrics_text
from .status_tool import (
    HOUR,
    MANY,
    OK,
    SECONDS,
    UNKNOWN,
    USAGE,
    command,
    day_before,
    make_older,
    result,
    result_path,
    run_at_little_cost,
    run_bare,
    status,
    write_result,
)


def metrics_path(machine):
    return machine.folder / "m\u00e4trics.prom"


def metrics_of(machine, *arguments, code=OK, log_dir=None):
    path = metrics_path(machine)
    finished = status(machine, "--openmetrics", machine.platform.native_path(path), *arguments,
                      log_dir=log_dir)
    assert (finished.code, finished.errors) == (code, "")
    assert finished.output.startswith({OK: "OK: ", UNKNOWN: "UNKNOWN: "}[code])
    assert not drafts_of(path)
    return metrics_text.read(path.read_bytes())


def drafts_of(path):
    return list(path.parent.glob(f"{path.name}.*"))


# Values.


def test_metrics_show_what_a_run_has_done(machine, service):
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    machine.account("bob")
    machine.log("bob", "c.log", b"seven b")
    make_older(machine, "bob", "c.log", 3 * HOUR)
    machine.account("carol", seal=False)
    service.decide = lambda request: Answer(500 if b"seven b" in request.body else 200)
    before, today = int(time.time()), datetime.date.today()
    machine.run()
    metrics = metrics_of(machine, "--per-account")
    if datetime.date.today() != today:
        pytest.skip("the test crossed midnight")
    after = int(time.time())
    assert before <= metrics.value("survey_timestamp_seconds") <= after
    assert before <= metrics.value("last_run_timestamp_seconds") <= after
    wanted = {
        "accounts": 3, "accounts_without_credentials": 1, "waiting_files": 1, "waiting_bytes": 7,
        "archived_files": 2, "not_sent_files": 0, "today_runs": 1, "today_sent_files": 2,
        "today_failed_files": 1, "today_unfinished_blocks": 0, "last_run_success": 0,
        "last_run_sent_files": 2, "last_run_failed_files": 1, "unreadable_paths": 0,
    }
    assert {name: metrics.value(name) for name in wanted} == wanted
    assert 3 * HOUR <= metrics.value("waiting_oldest_age_seconds") <= 3 * HOUR + SECONDS
    oldest = metrics.value("waiting_oldest_timestamp_seconds")
    assert before - 3 * HOUR - SECONDS <= oldest <= after - 3 * HOUR
    assert metrics.accounts("waiting_files") == {"alice": 0, "bob": 1, "carol": 0}
    assert metrics.accounts("waiting_bytes") == {"alice": 0, "bob": 7, "carol": 0}
    assert metrics.accounts("waiting_oldest_timestamp_seconds") == {"bob": oldest}
    assert metrics.accounts("archived_files") == {"alice": 2, "bob": 0, "carol": 0}
    assert metrics.accounts("has_credentials") == {"alice": 1, "bob": 1, "carol": 0}
    assert metrics.accounts("today_failed_files") == {"alice": 0, "bob": 1, "carol": 0}
    (log_dir,) = {dict(labels)["log_dir"] for _, labels in metrics.samples}
    assert log_dir == machine.native()


def test_accounts_have_samples_only_when_asked_for(machine):
    machine.account("alice")
    machine.log("alice", "a.log")
    metrics = metrics_of(machine)
    assert metrics.value("waiting_files") == 1
    assert not any("account" in dict(labels) for _, labels in metrics.samples)


def test_flushed_files_do_not_count_as_sent(machine, service):
    machine.account("alice")
    machine.log("alice", "a.log")
    service.decide = lambda request: Answer(503)
    machine.run_forced()
    metrics = metrics_of(machine, "--per-account")
    assert metrics.value("not_sent_files") == 1
    assert metrics.accounts("not_sent_files") == {"alice": 1}


def test_metrics_of_an_empty_tree(machine):
    metrics = metrics_of(machine, "--per-account")
    assert metrics.value("accounts") == 0 and metrics.value("waiting_files") == 0
    assert metrics.value("last_run_timestamp_seconds") == 0
    for name in ("last_run_success", "last_run_sent_files", "last_run_failed_files",
                 "waiting_oldest_timestamp_seconds"):
        assert metrics.value(name) is None


def test_metrics_report_an_unreadable_tree(machine):
    metrics = metrics_of(machine, code=UNKNOWN, log_dir=machine.folder / "nowhere")
    assert metrics.value("unreadable_paths") == 1


def test_last_run_is_the_latest_one_in_the_result_files(machine):
    day = day_before(2)
    write_result(machine, day_before(4), result(day_before(4), 9, 9))
    write_result(machine, day, result(day, 5, 0), result(day, 7, 3))
    metrics = metrics_of(machine)
    then = datetime.datetime(day.year, day.month, day.day, 8)
    assert metrics.value("last_run_timestamp_seconds") == int(then.timestamp())
    assert metrics.value("last_run_sent_files") == 7
    assert metrics.value("last_run_failed_files") == 3
    assert metrics.value("last_run_success") == 0
    assert metrics.value("today_sent_files") == 0
    # Older than the days of the report.
    assert metrics_of(machine, "--days", "2").value("last_run_timestamp_seconds") == 0


def test_metrics_of_half_written_result_files(machine):
    today = datetime.date.today()
    whole = result(today, 20, 3, [("alice", 2), ("bob", 1)])
    counts = whole.index("Upload error") + len("Upload error    : 3\r\n\r\n")
    for size in (1, 60, counts - 2, counts + 30, len(whole) - 1):
        result_path(machine, today).write_bytes(
            (result(today, 10, 0) + whole[:size]).encode("utf-16-le"))
        metrics = metrics_of(machine)
        if datetime.date.today() != today:
            pytest.skip("midnight has passed")
        read = size >= counts
        assert metrics.value("today_unfinished_blocks") == 1
        assert metrics.value("today_sent_files") == (30 if read else 10)
        assert metrics.value("last_run_sent_files") == (20 if read else 10)
        assert metrics.value("last_run_success") == (0 if read else 1)


# Text.


def test_names_of_all_kinds_in_labels(machine):
    names = ["a b", "zo\u00eb \u20ac", "\U0001f600", "x" * 200, "\ufffd"]
    shown = dict(zip(names, names))
    shown["\ufffd"] = "\ufffd00FFFD"
    if machine.platform.name == "linux":
        for name in ('"quoted"', "back\\slash", "line\nfeed", '\\"\n\\', "C:\\n"):
            shown[name] = name
        for byte in (0xFE, 0xFF):
            shown[os.fsdecode(bytes([0x61, byte]))] = f"a\ufffd00DC{byte:X}"
        shown["\x1b[2J"] = "\ufffd00001B[2J"
        shown["\r"] = "\ufffd00000D"
    for number, name in enumerate(shown):
        machine.account(name, seal=False)
        for file in range(number):
            machine.log(name, f"{file}.log")
    metrics = metrics_of(machine, "--per-account")
    assert metrics.accounts("waiting_files") == {
        label: number for number, label in enumerate(shown.values())
    }


def test_log_directories_of_all_kinds_in_labels(machine):
    names = {"gr\u00fc\u00dfe \u20ac": "gr\u00fc\u00dfe \u20ac"}
    if machine.platform.name == "linux":
        names['a"b\\c\nd'] = 'a"b\\c\nd'
        names[os.fsdecode(b"\xff")] = "\ufffd00DCFF"
    for name, label in names.items():
        folder = machine.folder / name
        (folder / "Upload").mkdir(parents=True)
        metrics = metrics_of(machine, log_dir=folder)
        (log_dir,) = {dict(labels)["log_dir"] for _, labels in metrics.samples}
        assert log_dir.endswith(label)


def test_promtool_accepts_the_metrics(machine):
    promtool = shutil.which("promtool")
    if promtool is None:
        pytest.skip("promtool is not installed: ./dev setup --monitoring")
    machine.account('a"b' if machine.platform.name == "linux" else "a'b")
    machine.log(next(iter(machine.accounts)), "a.log")
    today = datetime.date.today()
    write_result(machine, today, result(today, 3, 2))
    metrics_of(machine, "--per-account")
    checked = subprocess.run(
        [promtool, "check", "metrics"], input=metrics_path(machine).read_bytes(),
        capture_output=True, timeout=SECONDS, check=False,
    )
    assert (checked.returncode, checked.stdout, checked.stderr) == (0, b"", b"")


# The file.


def test_metrics_replace_older_ones_in_one_step(machine):
    metrics_of(machine)
    path = metrics_path(machine)
    path.write_bytes(b"x" * 1_000_000)
    older = path.stat().st_ino
    metrics_of(machine)
    assert path.stat().st_ino != older


def test_readers_never_see_half_a_file(machine):
    """Several runs at the same time, as by a task and an administrator, and a continuous reader."""
    for number in range(30):
        machine.account(f"account {number}", seal=False)
    path = metrics_path(machine)
    metrics_of(machine, "--per-account")
    arguments = (machine.native(), "--openmetrics", machine.platform.native_path(path),
                 "--per-account")
    at_work, seen = threading.Event(), []

    def read_on():
        while not at_work.is_set():
            metrics_text.read(path.read_bytes())
            seen.append(path.stat().st_ino)

    def read():
        try:
            read_on()
        except BaseException as problem:  # pylint: disable=broad-except
            seen.append(problem)

    reader = threading.Thread(target=read)
    reader.start()
    try:
        for _ in range(10 if machine.platform.name == "linux" else 2):
            runs = [
                subprocess.Popen(command(machine, *arguments), env=machine.environment,
                                 stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL)
                for _ in range(4)
            ]
            codes = [run.wait(SECONDS) for run in runs]
            # On Windows, one of two simultaneous moves to the same path may be refused.
            assert OK in codes
    finally:
        at_work.set()
        reader.join(SECONDS)
    assert not [one for one in seen if isinstance(one, BaseException)]
    # A file system may reuse the inode number of a replaced file.
    assert sum(one != following for one, following in zip(seen, seen[1:])) > 2
    assert not drafts_of(path)


def test_metrics_that_cannot_be_written(machine):
    machine.account("alice")
    path = machine.folder / "nowhere" / "x.prom"
    finished = status(machine, "--openmetrics", machine.platform.native_path(path))
    assert finished.code == UNKNOWN
    assert finished.errors.startswith("KydUploadStatus: cannot write ")
    assert finished.errors.rstrip().endswith("x.prom (missing)")
    assert "alice" in finished.output  # the report is still printed


def test_metrics_do_not_take_the_place_of_a_folder(machine):
    path = metrics_path(machine)
    path.mkdir()
    finished = status(machine, "--openmetrics", machine.platform.native_path(path))
    assert finished.code == UNKNOWN
    assert finished.errors.startswith("KydUploadStatus: cannot write ")
    assert path.is_dir() and not drafts_of(path)


def test_metrics_do_not_take_the_place_of_a_pipe(machine):
    if machine.platform.name == "windows":
        pytest.skip("Windows has no named pipes in the file system")
    path = metrics_path(machine)
    os.mkfifo(path)
    finished = status(machine, "--openmetrics", path)
    assert finished.code == UNKNOWN
    assert finished.errors.startswith("KydUploadStatus: cannot write ")
    assert path.is_fifo() and not drafts_of(path)


def test_full_disk_keeps_the_old_metrics(machine):
    if machine.platform.name == "windows":
        pytest.skip("the file size limit would apply to Wine itself")
    import resource  # not available on Windows

    metrics_of(machine)
    path = metrics_path(machine)
    older = path.read_bytes()
    finished = subprocess.run(
        command(machine, machine.native(), "--openmetrics", path), env=machine.environment,
        stdin=subprocess.DEVNULL, capture_output=True, timeout=SECONDS, check=False,
        # The signal stays ignored, so writes beyond the limit fail, with the temporary file already created.
        restore_signals=False,
        preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1000, 1000)),
    )
    assert finished.returncode == UNKNOWN
    assert finished.stderr.startswith(b"KydUploadStatus: cannot write ")
    assert path.read_bytes() == older and not drafts_of(path)


def test_folder_without_rights_keeps_the_old_metrics(ordinary):
    folder = ordinary.tree.parent / "textfile"
    folder.mkdir(mode=0o755)
    path = folder / "x.prom"
    path.write_bytes(b"# EOF\n")
    finished = ordinary("--openmetrics", path)
    assert finished.code == UNKNOWN
    assert finished.errors == f"KydUploadStatus: cannot write {path} (access denied)\n"
    assert path.read_bytes() == b"# EOF\n" and not drafts_of(path)


@pytest.mark.parametrize("arguments", [
    ("a", "--openmetrics"), ("a", "--openmetrics="), ("a", "--per-account")])
def test_wrong_usage_of_metrics(machine, arguments):
    finished = run_bare(machine, *arguments)
    assert (finished.code, finished.output) == (USAGE, "")
    assert finished.errors.startswith("KydUploadStatus: ") and "--help" in finished.errors


# Large trees.


def test_metrics_of_many_files_take_little_time_and_memory(machine, many_files):
    if machine.platform.name == "windows":
        pytest.skip("this would measure Wine's folder search")
    if machine.platform.is_built_with("asan", "tsan"):
        pytest.skip("this build needs additional memory")
    path = metrics_path(machine)
    run_at_little_cost(machine, many_files, "--openmetrics", path, "--per-account")
    metrics = metrics_text.read(path.read_bytes())
    assert metrics.value("waiting_files") == MANY
    assert metrics.value("waiting_bytes") == MANY * 4096


def test_metrics_of_many_accounts(machine):
    if machine.platform.name == "windows":
        pytest.skip("creating the folders takes too long under Wine")
    folder = machine.folder / "many"
    for number in range(2000):
        (folder / "Upload" / f"account {number}").mkdir(parents=True)
    metrics = metrics_of(machine, "--per-account", log_dir=folder)
    assert len(metrics.accounts("waiting_files")) == 2000
