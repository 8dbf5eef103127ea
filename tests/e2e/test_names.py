"""Names that careless code would mishandle."""

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
    """Cuts messages to 1023 characters; on Windows, to 1023 UTF-16 units."""
    return [text[:1023] if isinstance(text, str) else text for text in messages]


def test_files_of_any_name_are_sent_archived_and_logged(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.logs("alice", *(name + ".log" for name in NAMES))
    order = machine.search_order("alice")
    machine.run()
    assert [one.body for one in service.requests] == [
        machine.content("alice", name) for name in order
    ]
    assert all(machine.is_archived("alice", name) for name in order)
    expected = say.started(machine) + say.account_in("alice")
    for name in order:
        expected += say.accepted(machine, "alice", name)
    expected += say.account_out("alice")
    expected += say.summary(accounts=1, send=1, ok=len(NAMES))
    expect_messages(machine.messages(), cut(expected))


def test_accounts_of_any_name_are_handled_reported_and_flushed(machine, service):
    machine.switch_log_on()
    for name in NAMES:
        machine.account(name)
        machine.logs(name, "a.log", "b.log")
    service.answer_with(*len(NAMES) * [Answer(500), None])
    accounts = machine.account_order()
    files = {name: machine.search_order(name) for name in accounts}
    machine.run_forced()

    for name in accounts:
        assert machine.is_archived(name, files[name][1])
        assert machine.archive(name, files[name][0] + ".bak").exists()
    # The buffer of such a line holds 260 characters, including the line end.
    lines = [f"           [{name} / 1]\r\n"[:259] for name in accounts]
    text = machine.result_file().decode("utf-16-le")
    assert text.endswith("[Folder / Number of errors]\r\n" + "".join(lines) + "\r\n\r\n")
    expected = say.started(machine, force=True)
    for name in accounts:
        expected += say.account_in(name)
        expected += say.refused(machine, name, files[name][0], 500)
        expected += say.accepted(machine, name, files[name][1])
        expected += say.account_out(name)
    expected += say.flushed([(name, [None]) for name in accounts])
    count = len(NAMES)
    expected += say.summary(accounts=count, send=count, ok=count, error=count)
    expect_messages(machine.messages(), cut(expected))


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


@pytest.mark.parametrize(
    "name", ["with blanks", "%s%n%d", "größer-日本語", "emoji-\U0001f600", "x" * 251]
)
def test_log_directory_of_any_name_is_used(machine, service, name):
    machine.switch_log_on()
    machine.log_dir = machine.log_dir.rename(machine.folder / name)
    machine.account("alice")
    machine.log("alice", "a.log")
    machine.run()
    assert machine.is_archived("alice", "a.log")
    assert machine.messages()[:2] == cut(say.started(machine))


@pytest.mark.parametrize("name", [b"bad\xff\xfe", b"\x80", b"cut-\xe6\x97", b"low-\xed\xb3\xbf"])
def test_names_that_are_invalid_utf8_are_handled_like_others(machine, service, name):
    if machine.platform.name == "windows":
        pytest.skip("Windows file names are not bytes")
    machine.switch_log_on()
    text = os.fsdecode(name)
    machine.account(text)
    machine.logs(text, text + ".log", "good.log")
    order = machine.search_order(text)
    service.answer_with(None, Answer(500))
    machine.run_forced()
    assert machine.is_archived(text, order[0])
    assert machine.archive(text, order[1] + ".bak").exists()
    # The log is still valid UTF-8; invalid bytes are replaced.
    assert say.summary(accounts=1, send=1, ok=1, error=1) == machine.messages()[-3:]


def test_log_directory_that_is_invalid_utf8_is_used(machine, service):
    if machine.platform.name == "windows":
        pytest.skip("Windows file names are not bytes")
    machine.log_dir = machine.log_dir.rename(machine.folder / os.fsdecode(b"caf\xe9"))
    machine.account("alice")
    machine.log("alice", "a.log")
    machine.run()
    assert machine.is_archived("alice", "a.log")


def test_pattern_takes_log_files_in_any_case_and_leaves_everything_else(machine, service):
    machine.account("alice")
    taken = ["a.log", "b.LOG", "c.Log", ".log", "..log", "d.log.log"]
    left = ["log", "a.txt", "e.log.bak", "alog", "a.lo"]
    if machine.platform.name == "linux":
        # On Windows, a short name or a trailing dot would make these match.
        left += ["f.log~", "g.log."]
    machine.logs("alice", *taken)
    for name in left:
        machine.upload("alice", name).write_text("no log file")
    machine.run_forced()
    assert len(service.requests) == len(taken)
    assert all(machine.is_archived("alice", name) for name in taken)
    assert all(machine.upload("alice", name).exists() for name in left)


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
        pytest.skip("Windows does not support Linux links")
    machine.switch_log_on()
    machine.account("alice")
    real = machine.folder / "real.txt"
    real.write_bytes(b"behind a link\n")
    machine.upload("alice", "a.log").symlink_to(real)
    machine.run()
    assert service.bodies() == [b"behind a link\n"]
    assert machine.archive("alice", "a.log").is_symlink()
