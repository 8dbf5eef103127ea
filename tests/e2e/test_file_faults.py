"""What other programs and the machine can do to files during a run; each outcome is checked in full."""

import contextlib
import os
import shutil
import stat
import tempfile

import pytest

from service.log_service import Answer, Hold

from .outcome import VICTIM_SIZE, Accepted, BrokenLine, EndOfRun


def only_on_linux(plan, why):
    if plan.machine.platform.name == "windows":
        pytest.skip(why)


@contextlib.contextmanager
def run_held(plan, hold):
    """Starts a run and pauses it for the duration of the block."""
    with plan.machine.start() as running:
        assert hold.reached.wait(30)
        yield plan.machine.upload(*plan.victim)
        hold.release.set()
        running.wait()


@pytest.fixture
def before_opening(plan, service):
    """Pauses when the victim is found but not yet opened, while the file before it awaits its answer."""
    hold = Hold()
    plan.answer_victim(service, None, before=Answer(hold=hold))
    return lambda: run_held(plan, hold)


@pytest.fixture
def before_moving(plan, service):
    """Pauses when the victim is completely read and awaits its answer."""
    hold = Hold()
    plan.answer_victim(service, Answer(hold=hold))
    return lambda: run_held(plan, hold)


@pytest.fixture
def while_reading(plan, service):
    """Pauses when the victim is open and mostly unread, because the service has stopped reading."""
    plan.machine.log(*plan.victim, os.urandom(30_000_000))
    hold = Hold()
    plan.answer_victim(service, Answer(body_hold=hold))
    return lambda: run_held(plan, hold)


# Between search and open.


def test_file_vanishes_before_it_is_opened(plan, service, before_opening):
    plan.fates[plan.victim] = EndOfRun()
    plan.gone.add(plan.victim)
    with before_opening():
        plan.machine.remove_log(*plan.victim)
    plan.expect(service, unheard=[plan.victim])


@pytest.mark.parametrize("content", [b"", b"shrunken", os.urandom(1_000_000)], ids=len)
def test_file_that_changes_before_it_is_opened_is_sent_as_it_is_then(
    plan, service, before_opening, content
):
    with before_opening():
        plan.machine.change_log(*plan.victim, content)
    plan.expect(service)


def test_file_that_is_replaced_before_it_is_opened_is_sent_as_it_is_then(
    plan, service, before_opening
):
    with before_opening() as path:
        new = path.with_name("new")
        new.write_bytes(b"another file\n")
        new.replace(path)
        plan.machine.note_change(*plan.victim, b"another file\n")
    plan.expect(service)


def test_file_that_becomes_a_folder_before_it_is_opened(plan, service, before_opening):
    plan.fates[plan.victim] = EndOfRun()
    plan.gone.add(plan.victim)
    with before_opening() as path:
        plan.machine.remove_log(*plan.victim)
        path.mkdir()
    assert path.is_dir()
    plan.expect(service, unheard=[plan.victim])


# While it is read.


def test_file_that_grows_while_it_is_read(plan, service, while_reading):
    content = plan.machine.content(*plan.victim)
    with while_reading() as path:
        with path.open("ab") as file:
            file.write(b"appended")
        plan.machine.note_change(*plan.victim, content + b"appended")
    (sent,) = (one.body for one in service.requests if one.body.startswith(content[:1000]))
    assert sent in (content, content + b"appended")
    plan.expect(service, bodies={plan.victim: sent})


def test_file_that_shrinks_while_it_is_read(plan, service, while_reading):
    windows = plan.machine.platform.name == "windows"
    content = plan.machine.content(*plan.victim)
    kept = content[:25_000_000]
    # If the length is sent in advance, missing bytes break the request.
    plan.fates[plan.victim] = BrokenLine() if windows else Accepted()
    with while_reading() as path:
        os.truncate(path, len(kept))
        plan.machine.note_change(*plan.victim, kept)
    plan.expect(service, unheard=[plan.victim] if windows else ())


def test_file_that_is_replaced_while_it_is_read(plan, service, while_reading):
    """The opened file is sent; the file that has its name at the end is moved."""
    content = plan.machine.content(*plan.victim)
    with while_reading() as path:
        new = path.with_name("new")
        new.write_bytes(b"another file\n")
        new.replace(path)
        plan.machine.note_change(*plan.victim, b"another file\n")
    plan.expect(service, bodies={plan.victim: content})


# Between answer and move.


def test_file_that_grows_before_it_is_moved_is_archived_as_it_is_then(plan, service, before_moving):
    content = plan.machine.content(*plan.victim)
    with before_moving() as path:
        with path.open("ab") as file:
            file.write(b"appended")
        plan.machine.note_change(*plan.victim, content + b"appended")
    plan.expect(service, bodies={plan.victim: content})


def test_file_that_vanishes_before_it_is_moved(plan, service, before_moving):
    content = plan.machine.content(*plan.victim)
    plan.fates[plan.victim] = Accepted(move_error=2)
    plan.gone.add(plan.victim)
    with before_moving():
        plan.machine.remove_log(*plan.victim)
    plan.expect(service, bodies={plan.victim: content})


def test_target_created_before_the_move_is_kept(plan, service, before_moving):
    plan.fates[plan.victim] = Accepted(move_error=183)
    with before_moving():
        plan.machine.archived(*plan.victim, b"of another program\n")
        plan.machine.expect_more(b"of another program\n")
    plan.expect(service)
    assert plan.machine.archive(*plan.victim).read_bytes() == b"of another program\n"


def test_archive_folder_that_vanishes_before_the_move(plan, service, before_moving):
    first, second, third = dict(plan.order)["alice"]
    for name in (second, third):
        plan.fates["alice", name] = Accepted(move_error=3)
    with before_moving():
        shutil.move(plan.machine.archive("alice"), plan.machine.folder / "elsewhere")
        content = plan.machine.forget_log("alice", first)
        plan.gone.add(("alice", first))
    plan.expect(service, bodies={("alice", first): content})


# The archive.


def expect_nothing_of_alice_moved(plan, service, error):
    for account, name in plan.files():
        if account == "alice":
            plan.fates[account, name] = Accepted(move_error=error)
    plan.machine.run()
    plan.expect(service)


def test_archive_folder_that_is_missing(plan, service):
    plan.machine.archive("alice").rmdir()
    expect_nothing_of_alice_moved(plan, service, 3)


def test_archive_folder_that_is_a_file(plan, service):
    plan.machine.archive("alice").rmdir()
    plan.machine.archive("alice").write_bytes(b"")
    plan.machine.expect_more(b"")
    expect_nothing_of_alice_moved(plan, service, 3)


def test_archive_folder_without_write_permission(plan, service):
    if os.geteuid() == 0:
        pytest.skip("root can write anywhere")
    plan.machine.archive("alice").chmod(0o500)
    try:
        expect_nothing_of_alice_moved(plan, service, 5)
    finally:
        plan.machine.archive("alice").chmod(0o700)


def test_archive_folder_on_another_file_system(plan, service):
    with tempfile.TemporaryDirectory(dir="/dev/shm") as elsewhere:
        if os.stat(elsewhere).st_dev == os.stat(plan.machine.folder).st_dev:
            pytest.skip("this machine has only one file system")
        plan.machine.archive("alice").rmdir()
        plan.machine.archive("alice").symlink_to(elsewhere)
        plan.machine.run()
        plan.expect(service)
        assert len(os.listdir(elsewhere)) == 3


def test_archive_folder_on_another_file_system_that_is_full(plan, service):
    only_on_linux(plan, "the limit would apply to Wine itself")
    with tempfile.TemporaryDirectory(dir="/dev/shm") as elsewhere:
        if os.stat(elsewhere).st_dev == os.stat(plan.machine.folder).st_dev:
            pytest.skip("this machine has only one file system")
        plan.machine.archive("alice").rmdir()
        plan.machine.archive("alice").symlink_to(elsewhere)
        # Limiting the file size to part of the victim's size has the effect of a full disk.
        blocks = VICTIM_SIZE // 512 // 2
        script = f'trap "" XFSZ; ulimit -f {blocks}; exec "$@"'
        plan.machine.launcher = ["sh", "-c", script, "sh"]
        expect_nothing_of_alice_moved(plan, service, 31)
        assert not os.listdir(elsewhere), "a partial copy is left"


# Entries that look like log files but are not.


def replace_victim(plan):
    plan.machine.remove_log(*plan.victim)
    plan.gone.add(plan.victim)
    return plan.machine.upload(*plan.victim)


def expect_end_at_victim(plan, service):
    plan.fates[plan.victim] = EndOfRun()
    plan.machine.run(seconds=20)
    plan.expect(service, unheard=[plan.victim])


def test_folder_in_place_of_a_file(plan, service):
    replace_victim(plan).mkdir()
    expect_end_at_victim(plan, service)


def test_link_to_nothing(plan, service):
    path = replace_victim(plan)
    path.symlink_to(plan.machine.folder / "nothing")
    if plan.machine.platform.name == "windows":
        pytest.skip("Wine does not list such a link")
    expect_end_at_victim(plan, service)
    assert path.is_symlink()


def test_pipe_in_place_of_a_file(plan, service):
    only_on_linux(plan, "Windows has no such files")
    path = replace_victim(plan)
    os.mkfifo(path)
    expect_end_at_victim(plan, service)
    assert stat.S_ISFIFO(path.stat().st_mode)


@pytest.mark.parametrize("device", ["/dev/zero", "/dev/null", "/dev/tty"])
def test_device_in_place_of_a_file(plan, service, device):
    only_on_linux(plan, "Windows has no such files")
    replace_victim(plan).symlink_to(device)
    expect_end_at_victim(plan, service)


def test_file_that_cannot_be_read(plan, service):
    only_on_linux(plan, "Windows has no such files")
    # Opening succeeds, but reading the first byte fails.
    replace_victim(plan).symlink_to("/proc/self/mem")
    expect_end_at_victim(plan, service)


def test_file_that_another_program_holds(plan, service):
    if plan.machine.platform.name == "linux":
        pytest.skip("on Linux a program cannot prevent others from reading")
    with plan.machine.held_by_another(plan.machine.upload(*plan.victim)):
        plan.machine.run()
    plan.fates[plan.victim] = EndOfRun()
    plan.expect(service, unheard=[plan.victim])


# What Windows refuses to move, write or delete.


def only_on_windows(plan):
    if plan.machine.platform.name == "linux":
        pytest.skip("Linux has neither share modes nor read-only files")


def test_file_that_another_program_reads_is_sent_and_stays(plan, service):
    only_on_windows(plan)
    plan.fates[plan.victim] = Accepted(move_error=32)
    with plan.machine.held_by_another(plan.machine.upload(*plan.victim), "for-reading"):
        plan.machine.run()
    plan.expect(service)
    # The next run sends and moves it.
    plan.machine.run()
    assert plan.machine.is_archived(*plan.victim)
    plan.machine.lost_nothing()


def test_read_only_file_is_sent_and_moved(plan, service):
    only_on_windows(plan)
    plan.machine.upload(*plan.victim).chmod(0o444)
    plan.machine.run()
    plan.expect(service)


def test_read_only_credentials_survive_a_refusal(plan, service):
    only_on_windows(plan)
    credential = plan.machine.credential("alice")
    credential.chmod(0o444)
    service.decide = lambda request: Answer(401) if request.account == "alice" else None
    plan.machine.run()
    assert credential.exists()
    failed = [line for line in plan.machine.messages() if line.startswith("<DeleteAuthFile>")]
    assert failed == ["<DeleteAuthFile> failed."] * 3
    plan.machine.lost_nothing()


def test_result_file_that_another_program_holds_is_left_alone(plan, service):
    only_on_windows(plan)
    plan.machine.run()
    (result,) = plan.machine.result_files()
    content = result.read_bytes()
    plan.machine.log("bob", "later.log")
    with plan.machine.held_by_another(result):
        plan.machine.run()
    assert result.read_bytes() == content
    assert plan.machine.is_archived("bob", "later.log")
    plan.machine.lost_nothing()


# The diagnostic log.


def test_full_disk_under_the_diagnostic_log(plan, service):
    plan.machine.diagnostic_log.parent.mkdir()
    plan.machine.diagnostic_log.symlink_to("/dev/full")
    plan.machine.run()
    assert len(service.requests) == 4
    assert all(plan.machine.is_archived(*file) for file in plan.files())


@pytest.mark.parametrize("size", [1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF])
def test_absurd_limit_of_the_diagnostic_log(plan, service, size):
    plan.machine.switch_log_on(OutputLogSize=size)
    plan.machine.run()
    if size == 1:
        # The check at the first line finds the log too long; the next one is ten seconds later.
        aside = plan.machine.diagnostic_log.with_name("KydLogUploader.log.bak")
        assert len(aside.read_bytes().splitlines()) == 1
        assert all(plan.machine.is_archived(*file) for file in plan.files())
    else:
        plan.expect(service)


@pytest.mark.parametrize("length", [259, 5000, 100_000])
def test_absurd_folder_of_the_diagnostic_log(plan, service, length):
    base = plan.machine.native() + plan.machine.platform.separator
    plan.machine.settings({"OutputLog": 0xFFFFFFFF, "OutputLogDir": base + "x" * length})
    plan.machine.run()
    assert len(service.requests) == 4
    assert all(plan.machine.is_archived(*file) for file in plan.files())
