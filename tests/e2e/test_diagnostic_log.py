"""The diagnostic log: switches, folder, format, rotation, postponed lines."""

import datetime
import os
import shutil

import pytest

from service.log_service import Answer, Hold

from . import messages as say
from .harness import ON, expect_messages, parse_log


@pytest.fixture
def loaded(machine, service):
    """A machine with one file to send; each test makes its own log settings."""
    machine.account("alice")
    machine.log("alice", "a.log")
    return machine


def whole_run(machine):
    return [
        *say.started(machine),
        *say.account_in("alice"),
        *say.accepted(machine, "alice", "a.log"),
        *say.account_out("alice"),
        *say.summary(accounts=1, send=1, ok=1),
    ]


def base(machine):
    return machine.platform.native_path(machine.diagnostic_base)


def expect_no_log(machine):
    """Runs the program to completion; no log may appear anywhere."""
    machine.run()
    assert machine.is_archived("alice", "a.log")
    assert not list(machine.diagnostic_base.iterdir())
    names = {path.name for path in machine.folder.rglob("*")}
    assert not names & {"DebugSSO", "DebugKydLog", "KydLogUploader.log", "kyd.log"}


def test_log_is_off_without_settings(loaded):
    expect_no_log(loaded)


@pytest.mark.parametrize(
    "value",
    [
        0,
        1,
        15,
        32,
        0xFFFFFFEF,
        "16",
        b"hex:10,00,00,00",
        b"hex(b):10,00,00,00,00,00,00,00",
        b"hex(2):31,00,36,00,00,00",
    ],
)
def test_log_is_off_unless_its_bit_is_set_in_a_number(loaded, value):
    loaded.settings({"OutputLog": value, "OutputLogDir": base(loaded)})
    expect_no_log(loaded)


@pytest.mark.parametrize("value", [16, 17, 0x110, 0xFFFFFFFF])
def test_log_is_on_when_its_bit_is_set(loaded, value):
    loaded.settings({"OutputLog": value, "OutputLogDir": base(loaded)})
    loaded.run()
    expect_messages(loaded.messages(), whole_run(loaded))
    assert [path.name for path in loaded.diagnostic_log.parent.iterdir()] == ["KydLogUploader.log"]


def test_legacy_settings_write_nothing(loaded):
    loaded.settings(None, legacy={"OutputLogDebug": 1, "OutputLog": ON})
    expect_no_log(loaded)


def test_line_is_prefix_message_comma_and_line_end(loaded):
    loaded.switch_log_on()
    start = datetime.datetime.now()
    with loaded.start() as running:
        running.wait()
    end = datetime.datetime.now()
    content = loaded.diagnostic_log.read_bytes()
    first = loaded.log_lines()[0]
    # parse_log has checked the format of every byte; this is one complete line as a reader sees it.
    assert content.split(b"\r\n")[0].decode("utf-8") == (
        f"\ufeff{first.time}, SID:{first.session:06}, PID:{first.process:06}, "
        f"TID:{first.thread:06}, {whole_run(loaded)[0]},"
    )
    lines = loaded.log_lines()
    assert {(one.session, one.process, one.thread) for one in lines} == {
        (first.session, first.process, first.thread)
    }
    if loaded.platform.name == "linux":
        assert (first.process, first.thread) == (running.pid, running.pid)
        assert first.session == os.getsid(0)
    stamps = [datetime.datetime.strptime(one.time, "%Y/%m/%dT%H:%M:%S.%f") for one in lines]
    assert stamps == sorted(stamps)
    slack = datetime.timedelta(milliseconds=20)
    assert start - slack <= stamps[0] and stamps[-1] <= end + slack


def test_further_runs_append_without_another_mark(loaded):
    loaded.switch_log_on()
    loaded.run()
    first = loaded.diagnostic_log.read_bytes()
    loaded.log("alice", "b.log")
    loaded.run()
    content = loaded.diagnostic_log.read_bytes()
    assert content.startswith(first)
    assert content.count(b"\xef\xbb\xbf") == 1
    second = [
        *say.started(loaded),
        *say.account_in("alice"),
        *say.accepted(loaded, "alice", "b.log"),
        *say.account_out("alice"),
        *say.summary(accounts=1, send=1, ok=1),
    ]
    expect_messages(loaded.messages(), whole_run(loaded) + second)


@pytest.mark.parametrize("ending", [0, 1, 2])
def test_folder_is_the_base_with_or_without_a_separator_at_its_end(loaded, ending):
    passed = base(loaded) + ending * loaded.platform.separator
    loaded.settings({"OutputLog": ON, "OutputLogDir": passed})
    loaded.run()
    expect_messages(loaded.messages(), whole_run(loaded))


def test_folder_is_made_with_its_parents(loaded):
    deep = loaded.diagnostic_base / "not" / "yet" / "größer"
    loaded.settings({"OutputLog": ON, "OutputLogDir": loaded.platform.native_path(deep)})
    loaded.run()
    lines = parse_log((deep / "DebugSSO" / "KydLogUploader.log").read_bytes())
    expect_messages([line.message for line in lines], whole_run(loaded))


def default_base(machine):
    return machine.platform.default_log_base(machine.sysroot)


@pytest.mark.parametrize(
    "value",
    [
        None,
        "",
        7,
        # The base itself, but as text with variables to expand.
        "expandable",
    ],
)
def test_default_base_is_used_when_the_folder_is_not_text(loaded, value):
    if value == "expandable":
        units = (base(loaded) + "\0").encode("utf-16-le")
        value = ("hex(2):" + ",".join(f"{byte:02x}" for byte in units)).encode()
    folder = default_base(loaded) / "DebugSSO"
    shutil.rmtree(folder, ignore_errors=True)
    more = {} if value is None else {"OutputLogDir": value}
    loaded.settings({"OutputLog": ON, **more})
    try:
        loaded.run()
        lines = parse_log((folder / "KydLogUploader.log").read_bytes())
        expect_messages([line.message for line in lines], whole_run(loaded))
        assert not list(loaded.diagnostic_base.iterdir())
    finally:
        shutil.rmtree(folder, ignore_errors=True)


def test_folder_that_cannot_be_made_switches_the_log_off(loaded):
    blocked = loaded.folder / "a file"
    blocked.write_text("in the way")
    loaded.settings({"OutputLog": ON, "OutputLogDir": loaded.platform.native_path(blocked)})
    loaded.run()
    assert loaded.is_archived("alice", "a.log")
    assert blocked.read_text() == "in the way"


def test_log_that_cannot_be_opened_does_not_disturb_the_run(loaded):
    loaded.switch_log_on()
    loaded.diagnostic_log.mkdir(parents=True)
    loaded.run()
    assert loaded.is_archived("alice", "a.log")
    assert loaded.diagnostic_log.is_dir()


def test_postponed_lines_are_written_in_order_once_the_log_opens(loaded, service):
    loaded.switch_log_on()
    loaded.diagnostic_log.mkdir(parents=True)
    hold = Hold()
    service.answer_with(Answer(200, hold=hold))
    with loaded.start() as running:
        assert hold.reached.wait(30)
        loaded.diagnostic_log.rmdir()
        hold.release.set()
        running.wait()
    expect_messages(loaded.messages(), whole_run(loaded))


def test_newest_hundred_postponed_lines_are_kept(machine, service):
    machine.switch_log_on()
    machine.diagnostic_log.mkdir(parents=True)
    machine.account("alice")
    machine.logs("alice", *(f"{number:02}.log" for number in range(25)))
    order = machine.search_order("alice")
    hold = Hold()
    service.answer_with(*[None] * 24, Answer(200, hold=hold))
    with machine.start() as running:
        assert hold.reached.wait(30)
        machine.diagnostic_log.rmdir()
        hold.release.set()
        running.wait()
    everything = [
        *say.started(machine),
        *say.account_in("alice"),
        *(line for name in order for line in say.accepted(machine, "alice", name)),
        *say.account_out("alice"),
        *say.summary(accounts=1, send=1, ok=25),
    ]
    # 124 lines were logged before the held answer; the oldest 24 are dropped.
    made = len(say.started(machine)) + 1 + 24 * 5 + 1
    assert made == 124
    expect_messages(machine.messages(), everything[made - 100 :])


def test_log_that_grew_past_its_limit_is_moved_aside(loaded):
    loaded.switch_log_on(OutputLogSize=1000)
    loaded.diagnostic_log.parent.mkdir()
    loaded.diagnostic_log.write_bytes(b"\xef\xbb\xbf" + b"old line\r\n" * 200)
    aside = loaded.diagnostic_log.with_name("KydLogUploader.log.bak")
    aside.write_bytes(b"older")
    loaded.run()
    content = aside.read_bytes()
    assert content.startswith(b"\xef\xbb\xbf" + b"old line\r\n" * 200)
    moved = content[3 + 2000 :]
    # The line at which the check finds the log too long is moved with it; the next check is ten seconds later.
    messages = [line.message for line in parse_log(b"\xef\xbb\xbf" + moved)]
    expect_messages(messages + loaded.messages(), whole_run(loaded))
    assert len(messages) == 1


@pytest.mark.parametrize("missing_bytes", [0, 1])
def test_log_is_moved_aside_exactly_at_its_limit(loaded, missing_bytes):
    limit = 4000
    loaded.switch_log_on(OutputLogSize=limit)
    loaded.run()
    first_line = loaded.diagnostic_log.read_bytes()[3:].split(b"\r\n")[0] + b"\r\n"
    filling = limit - len(first_line) - missing_bytes
    loaded.diagnostic_log.write_bytes(b"\xef\xbb\xbf" + b"x" * (filling - 5) + b"\r\n")
    loaded.run()
    aside = loaded.diagnostic_log.with_name("KydLogUploader.log.bak")
    assert aside.exists() == (missing_bytes == 0)
    if missing_bytes == 0:
        assert aside.stat().st_size == limit


@pytest.mark.parametrize("value", [None, 0, "1000", 10485760])
def test_limit_is_ten_mebibytes_unless_set_to_a_number(loaded, value):
    loaded.switch_log_on(**({} if value is None else {"OutputLogSize": value}))
    aside = loaded.diagnostic_log.with_name("KydLogUploader.log.bak")
    loaded.diagnostic_log.parent.mkdir()
    loaded.diagnostic_log.write_bytes(b"\xef\xbb\xbf" + b"x" * 10_480_000 + b"\r\n")
    loaded.run()
    assert not aside.exists()
    loaded.diagnostic_log.write_bytes(b"\xef\xbb\xbf" + b"x" * 10_485_755 + b"\r\n")
    loaded.run()
    assert aside.exists()


def test_another_program_may_have_the_log_open(loaded):
    loaded.switch_log_on()
    loaded.diagnostic_log.parent.mkdir()
    with loaded.diagnostic_log.open("ab") as writer, loaded.diagnostic_log.open("rb"):
        writer.write(b"")
        loaded.run()
    expect_messages(loaded.messages(), whole_run(loaded))
