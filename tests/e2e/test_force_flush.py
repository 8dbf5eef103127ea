"""Force flush: files that still wait are archived under a ".bak" name."""

from service.log_service import Answer

from . import messages as say
from .harness import expect_messages


def refuse_all(service):
    service.decide = lambda request: Answer(500)


def test_waiting_files_are_archived_under_their_bak_name(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log", "c.LOG")
    machine.upload("alice", "notes.txt").write_text("no log file")
    order = machine.search_order("alice")
    service.answer_with(Answer(500), None, Answer(503))
    machine.run_forced()

    assert machine.is_archived("alice", order[1])
    for name in (order[0], order[2]):
        assert not machine.upload("alice", name).exists()
        assert machine.archive("alice", name + ".bak").read_bytes() == machine.content(
            "alice", name
        )
    assert machine.upload("alice", "notes.txt").exists()
    expect_messages(
        machine.messages(),
        [
            *say.started(machine, force=True),
            *say.account_in("alice"),
            *say.refused(machine, "alice", order[0], 500),
            *say.accepted(machine, "alice", order[1]),
            *say.refused(machine, "alice", order[2], 503),
            *say.account_out("alice"),
            *say.flushed([("alice", [None, None])]),
            *say.summary(accounts=1, send=1, ok=1, error=2),
        ],
    )
    assert "Upload error    : 2\r\n" in machine.result_file().decode("utf-16-le")


def test_every_account_is_flushed_with_or_without_credentials(machine, service):
    machine.switch_log_on()
    refuse_all(service)
    for name, sealed in (("alice", True), ("bob", False), ("carol", True)):
        machine.account(name, seal=sealed)
        machine.log(name, "a.log")
    machine.account("dave")
    machine.upload("x.log").write_text("a plain file")
    machine.upload("NoSent_LogFiles").mkdir()
    machine.upload("NoSent_LogFiles", "y.log").write_text("never sent")
    machine.archive("NoSent_LogFiles").mkdir()
    order = machine.account_order()
    machine.run_forced()

    for name in ("alice", "bob", "carol"):
        assert machine.archive(name, "a.log.bak").exists()
    assert machine.upload("x.log").exists()
    assert machine.upload("NoSent_LogFiles", "y.log").exists()
    moves = [(name, [] if name == "dave" else [None]) for name in order]
    expected = say.flushed(moves) + say.summary(accounts=4, send=2, no_send=2, error=2)
    expect_messages(machine.messages()[-len(expected) :], expected)


def test_existing_bak_is_not_replaced(machine, service):
    machine.switch_log_on()
    refuse_all(service)
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    machine.archived("alice", "a.log.bak", b"of an earlier run\n")
    order = machine.search_order("alice")
    machine.run_forced()

    assert machine.upload("alice", "a.log").exists()
    assert machine.archive("alice", "a.log.bak").read_bytes() == b"of an earlier run\n"
    assert machine.archive("alice", "b.log.bak").exists()
    expected = say.flushed([("alice", [183 if name == "a.log" else None for name in order])])
    expected += say.summary(accounts=1, send=1, error=2)
    expect_messages(machine.messages()[-len(expected) :], expected)


def test_existing_archived_file_does_not_block_the_bak(machine, service):
    machine.account("alice")
    machine.log("alice", "a.log")
    machine.archived("alice", "a.log", b"of an earlier run\n")
    machine.run_forced()
    # The service accepts the file, the move fails, and the flush archives it.
    assert service.requests[0].status == 200
    assert not machine.upload("alice", "a.log").exists()
    assert machine.archive("alice", "a.log").read_bytes() == b"of an earlier run\n"
    assert machine.archive("alice", "a.log.bak").read_bytes() == machine.content("alice", "a.log")


def test_files_stay_when_the_archive_folder_is_missing(machine, service):
    machine.switch_log_on()
    refuse_all(service)
    machine.account("alice", archive=False)
    machine.logs("alice", "a.log", "b.log")
    machine.run_forced()
    assert machine.upload("alice", "a.log").exists() and machine.upload("alice", "b.log").exists()
    expected = say.flushed([("alice", [3, 3])]) + say.summary(accounts=1, send=1, error=2)
    expect_messages(machine.messages()[-len(expected) :], expected)


def test_run_that_ended_early_is_still_flushed(machine, service):
    machine.switch_log_on()
    for name in ("alice", "bob", "carol"):
        machine.account(name)
    first, second, third = machine.account_order()
    machine.upload(first, "folder.log").mkdir()
    machine.log(second, "a.log")
    machine.log(third, "b.log")
    machine.run_forced()

    assert not service.connections
    # A folder with the name of a log file is moved too.
    assert machine.archive(first, "folder.log.bak").is_dir()
    assert machine.archive(second, "a.log.bak").exists()
    assert machine.archive(third, "b.log.bak").exists()
    expect_messages(
        machine.messages(),
        [
            *say.started(machine, force=True),
            *say.account_in(first),
            *say.tried(machine, first, "folder.log"),
            f"<UploadOneUser> exception [{first}]",
            *say.flushed([(first, [None]), (second, [None]), (third, [None])]),
            *say.stopped(),
        ],
    )


def test_empty_flush_is_logged(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.run_forced()
    expect_messages(
        machine.messages(),
        [
            *say.started(machine, force=True),
            *say.account_in("alice"),
            *say.account_out("alice"),
            *say.flushed([("alice", [])]),
            *say.summary(accounts=1, no_send=1),
        ],
    )


def test_missing_upload_folder_is_flushed_as_empty(machine):
    machine.switch_log_on()
    machine.upload().rmdir()
    machine.run_forced()
    expect_messages(
        machine.messages(),
        [*say.started(machine, force=True), *say.flushed([]), *say.summary()],
    )


def test_result_file_is_written_before_the_flush(machine, service):
    """The report is written to an account's folder of waiting files, where the flush finds it."""
    refuse_all(service)
    machine.account("alice")
    machine.log("alice", "a.log")
    folder = machine.log_dir / "UploadResult"
    folder.rmdir()
    folder.symlink_to(machine.upload("alice"))
    with machine.start([machine.tenant, machine.native(), "Param_Force_Flush"]) as running:
        assert running.wait_for_end() == (0, b"")
    assert not list(machine.upload("alice").iterdir())
    names = [path.name for path in machine.archive("alice").iterdir()]
    (report,) = (name for name in names if name.startswith("UploadResult"))
    assert sorted(names) == sorted([report, "a.log.bak"]) and report.endswith(".log.bak")
    assert "           [alice / 1]\r\n" in machine.archive("alice", report).read_bytes().decode(
        "utf-16-le"
    )
