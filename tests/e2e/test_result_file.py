"""The daily result file, byte for byte."""

import datetime

import pytest

from service.log_service import Answer, Stage

from .result_text import block, times


def now():
    return datetime.datetime.now().replace(microsecond=0)


def test_run_without_failures_has_no_error_section(machine, service):
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    machine.account("bob", seal=False)
    machine.log("bob", "c.log")
    start = now()
    machine.run()
    content = machine.result_file()
    (time,) = times(content)
    expected = block(time, total=2, target=1, not_subject=1, success=2, error=0)
    assert content == expected.encode("utf-16-le")
    assert start <= datetime.datetime.strptime(time, "%Y:%m:%d %H:%M:%S") <= now()
    name = f"UploadResult{time[:10].replace(':', '')}.log"
    assert [path.name for path in machine.result_files()] == [name]


def test_accounts_with_failures_are_listed_in_the_order_of_the_run(machine, service):
    for name in ("alice", "bob", "carol"):
        machine.account(name)
    machine.logs("alice", "a.log", "b.log", "c.log")
    machine.log("bob", "d.log")
    machine.log("carol", "e.log")
    codes = {"alice": 500, "bob": 404, "carol": 200}
    service.decide = lambda request: Answer(codes[request.account])
    order = [name for name in machine.account_order() if name != "carol"]
    machine.run()
    content = machine.result_file()
    (time,) = times(content)
    counts = {"alice": 3, "bob": 1}
    expected = block(
        time,
        total=3,
        target=3,
        not_subject=0,
        success=1,
        error=4,
        log_dir=machine.native(),
        errors=[(name, counts[name]) for name in order],
    )
    assert content == expected.encode("utf-16-le")


def test_log_directory_is_written_exactly_as_passed(machine, service):
    machine.account("alice")
    machine.log("alice", "a.log")
    service.answer_with(Answer(500))
    passed = machine.native() + 2 * machine.platform.separator
    machine.run([machine.tenant, passed])
    assert f"   Upload folder path : {passed}\r\n" in machine.result_file().decode("utf-16-le")


def test_further_runs_of_a_day_append(machine, service):
    machine.account("alice")
    service.answer_with(None, Answer(503), None)
    machine.log("alice", "a.log")
    machine.run()
    first = machine.result_file()
    machine.log("alice", "b.log")
    machine.run()
    second = machine.result_file()
    machine.run()
    content = machine.result_file()
    assert second.startswith(first) and content.startswith(second)
    stamps = times(content)
    assert len(stamps) == 3
    one = dict(total=1, target=1, not_subject=0)
    expected = (
        block(stamps[0], **one, success=1, error=0)
        + block(
            stamps[1], **one, success=0, error=1, log_dir=machine.native(), errors=[("alice", 1)]
        )
        + block(stamps[2], **one, success=1, error=0)
    )
    assert content == expected.encode("utf-16-le")


def test_existing_content_of_the_file_is_kept(machine, service):
    machine.account("alice")
    machine.log("alice", "a.log")
    odd = b"\xff\xfeodd bytes\x00"
    for day in (0, 1):
        name = f"UploadResult{datetime.date.today() + datetime.timedelta(days=day):%Y%m%d}.log"
        (machine.log_dir / "UploadResult" / name).write_bytes(odd)
    machine.run()
    contents = [path.read_bytes() for path in machine.result_files()]
    assert contents.count(odd) == 1
    (written,) = (content for content in contents if content != odd)
    assert written.startswith(odd)
    (time,) = times(written[len(odd) :])
    expected = block(time, total=1, target=1, not_subject=0, success=1, error=0)
    assert written[len(odd) :] == expected.encode("utf-16-le")


@pytest.mark.parametrize("arguments", ["plain", "forced"])
def test_run_without_files_leaves_no_result_file(machine, service, arguments):
    machine.account("alice")
    machine.account("bob", seal=False)
    machine.log("bob", "b.log")
    if arguments == "forced":
        machine.run_forced()
    else:
        machine.run()
    assert not machine.result_files()


def test_run_with_only_a_broken_connection_leaves_no_result_file(machine, service):
    machine.account("alice")
    machine.log("alice", "a.log")
    service.answer_with(Answer(drop=Stage.BEFORE_ANSWER))
    machine.run()
    assert not machine.result_files()


def test_missing_result_folder_is_ignored(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.log("alice", "a.log")
    (machine.log_dir / "UploadResult").rmdir()
    machine.run()
    assert machine.is_archived("alice", "a.log")
    assert not (machine.log_dir / "UploadResult").exists()
    assert not [text for text in machine.messages() if "OutputResult" in text]


def test_folder_in_place_of_the_result_file_is_ignored(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.log("alice", "a.log")
    for day in (0, 1):
        name = f"UploadResult{datetime.date.today() + datetime.timedelta(days=day):%Y%m%d}.log"
        (machine.log_dir / "UploadResult" / name).mkdir()
    machine.run()
    assert machine.is_archived("alice", "a.log")
    assert not [text for text in machine.messages() if "OutputResult" in text]


def test_long_account_name_is_truncated_without_overrun(machine, service):
    name = "n" * 250
    machine.account(name)
    machine.log(name, "a.log")
    service.answer_with(Answer(500))
    machine.run()
    text = machine.result_file().decode("utf-16-le")
    # The buffer of the line holds 260 characters, including the line end.
    line = f"           [{name} / 1]\r\n"[:259]
    assert text.endswith(" [Folder / Number of errors]\r\n" + line + "\r\n\r\n")
