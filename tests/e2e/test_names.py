"""Names that a careless program would stumble over."""

import os
import re

import pytest

from service.log_service import Answer

from . import messages as say
from .harness import expect_messages

NAMES = [
    "with blanks in it",
    "  leading",
    "%s%s%n%d%x%p",
    "größer-日本語-ç",
    "emoji-\U0001f600",
    "a.b.c",
    "semi;colon,comma'quote",
    "brackets [x] {y} (z)",
    "$HOME `id` & more",
    "-rf",
    "#hash@at!bang^caret~tilde",
    "x" * 251,
]


def cut(messages):
    """No message is longer than 1023 characters; on Windows those are UTF-16 units."""
    return [text[:1023] if isinstance(text, str) else text for text in messages]


@pytest.mark.parametrize("name", NAMES, ids=lambda name: name[:24])
def test_file_of_any_name_is_sent_archived_and_logged(machine, service, name):
    machine.switch_log_on()
    machine.account("alice")
    machine.log("alice", name + ".log")
    machine.run()
    assert [one.body for one in service.requests] == [machine.content("alice", name + ".log")]
    assert machine.is_archived("alice", name + ".log")
    expect_messages(
        machine.messages(),
        cut(
            [
                *say.started(machine),
                *say.account_in("alice"),
                *say.accepted(machine, "alice", name + ".log"),
                *say.account_out("alice"),
                *say.summary(accounts=1, send=1, ok=1),
            ]
        ),
    )


@pytest.mark.parametrize("name", NAMES, ids=lambda name: name[:24])
def test_account_of_any_name_is_handled_reported_and_flushed(machine, service, name):
    machine.switch_log_on()
    machine.account(name)
    machine.logs(name, "a.log", "b.log")
    order = machine.search_order(name)
    service.answer_with(Answer(500), None)
    machine.run_forced()
    assert machine.is_archived(name, order[1])
    assert machine.archive(name, order[0] + ".bak").exists()
    assert f"           [{name} / 1]\r\n"[:259] in machine.result_file().decode("utf-16-le")
    expect_messages(
        machine.messages(),
        cut(
            [
                *say.started(machine, force=True),
                *say.account_in(name),
                *say.refused(machine, name, order[0], 500),
                *say.accepted(machine, name, order[1]),
                *say.account_out(name),
                *say.flushed([(name, [None])]),
                *say.summary(accounts=1, send=1, ok=1, error=1),
            ]
        ),
    )


def test_longest_name_has_no_room_for_bak_and_the_file_stays(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.log("alice", "x" * 251 + ".log")
    service.answer_with(Answer(500))
    machine.run_forced()
    assert machine.upload("alice", "x" * 251 + ".log").exists()
    assert not list(machine.archive("alice").iterdir())
    (failure,) = (text for text in machine.messages() if text.startswith("<Cleanup MOVE>"))
    assert re.fullmatch(r"<Cleanup MOVE> Move NG \[[1-9]\d*\]", failure)


@pytest.mark.parametrize("name", NAMES, ids=lambda name: name[:24])
def test_log_directory_of_any_name_is_used(machine, service, name):
    machine.switch_log_on()
    machine.log_dir = machine.log_dir.rename(machine.folder / name)
    machine.account("alice")
    machine.log("alice", "a.log")
    machine.run()
    assert machine.is_archived("alice", "a.log")
    assert machine.messages()[:2] == cut(say.started(machine))


@pytest.mark.parametrize("name", [b"bad\xff\xfe", b"\x80", b"cut-\xe6\x97", b"low-\xed\xb3\xbf"])
def test_names_that_are_no_utf8_are_handled_like_all_others(machine, service, name):
    if machine.platform.name == "windows":
        pytest.skip("file names of Windows are not made of bytes")
    machine.switch_log_on()
    text = os.fsdecode(name)
    machine.account(text)
    machine.logs(text, text + ".log", "good.log")
    order = machine.search_order(text)
    service.answer_with(None, Answer(500))
    machine.run_forced()
    assert machine.is_archived(text, order[0])
    assert machine.archive(text, order[1] + ".bak").exists()
    # The log is UTF-8 all the same; what cannot be written in it is replaced.
    assert say.summary(accounts=1, send=1, ok=1, error=1) == machine.messages()[-3:]


@pytest.mark.parametrize("name", ["a.log", "b.LOG", "c.Log", ".log", "..log", "d.log.log"])
def test_pattern_takes_log_files_in_any_case(machine, service, name):
    machine.account("alice")
    machine.log("alice", name)
    machine.run()
    assert machine.is_archived("alice", name)


@pytest.mark.parametrize("name", ["log", "a.txt", "a.log.bak", "a.log~", "a.log.", "alog", "a.lo"])
def test_pattern_leaves_everything_else(machine, service, name):
    if machine.platform.name == "windows" and name in ("a.log~", "a.log."):
        pytest.skip("a short name or a final dot makes this one a log file on Windows")
    machine.account("alice")
    machine.upload("alice", name).write_text("no log file")
    machine.run_forced()
    assert machine.upload("alice", name).exists()
    assert not service.connections


@pytest.mark.parametrize("name", ["NoSent_LogFiles", "nosent_logfiles", "NoSent_LogFiles2"])
def test_only_the_exact_name_is_never_an_account(machine, service, name):
    machine.account(name)
    machine.log(name, "a.log")
    machine.run_forced()
    if name == "NoSent_LogFiles":
        assert machine.is_waiting(name, "a.log")
        assert not service.connections
    else:
        assert machine.is_archived(name, "a.log")


def test_account_that_begins_with_a_dot_is_an_account(machine, service):
    machine.account(".hidden")
    machine.account("...") if machine.platform.name == "linux" else None
    machine.log(".hidden", "a.log")
    machine.run()
    assert machine.is_archived(".hidden", "a.log")


def test_linked_folder_and_linked_file_are_followed(machine, service):
    if machine.platform.name == "windows":
        pytest.skip("links of Linux are no links to Windows")
    machine.switch_log_on()
    machine.account("alice")
    real = machine.folder / "real.txt"
    real.write_bytes(b"behind a link\n")
    machine.upload("alice", "a.log").symlink_to(real)
    machine.run()
    assert service.bodies() == [b"behind a link\n"]
    assert machine.archive("alice", "a.log").is_symlink()


def test_pipe_that_looks_like_a_log_file_ends_the_run_and_does_not_hang(machine, service):
    if machine.platform.name == "windows":
        pytest.skip("there are no such files on Windows")
    machine.switch_log_on()
    machine.account("alice")
    os.mkfifo(machine.upload("alice", "a.log"))
    with machine.start() as running:
        running.wait_for_end(20)
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in("alice"),
            *say.tried(machine, "alice", "a.log"),
            "<UploadOneUser> exception [alice]",
            *say.stopped(),
        ],
    )
