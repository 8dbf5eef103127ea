"""Startup: arguments, and a single instance per machine."""

import pytest

from service.log_service import Answer, Hold

from . import messages as say
from .harness import Machine, expect_messages


@pytest.fixture
def loaded(machine, service):
    """A machine with one file that a run would send and with its log turned on."""
    machine.switch_log_on()
    machine.account("alice")
    machine.log("alice", "a.log")
    return machine


@pytest.mark.parametrize("count", [0, 1, 4, 5])
def test_wrong_number_of_arguments_does_nothing(loaded, service, count):
    arguments = [loaded.tenant, loaded.native(), "Param_Force_Flush", "more", "and more"]
    loaded.run(arguments[:count])
    assert loaded.changes() == ([], [])
    assert not service.connections
    assert not loaded.diagnostic_log.exists()


def test_two_arguments_are_a_run_without_force(loaded):
    loaded.archive("alice").rmdir()
    loaded.run()
    assert loaded.messages()[:2] == say.started(loaded)
    assert "<< SearchUploadDir >> start" not in loaded.messages()


def test_force_argument_is_a_forced_run(loaded):
    loaded.run_forced()
    assert loaded.messages()[:3] == say.started(loaded, force=True)
    assert "<< SearchUploadDir >> start" in loaded.messages()


@pytest.mark.parametrize(
    "argument",
    [
        "param_force_flush",
        "PARAM_FORCE_FLUSH",
        "Param_Force_Flush ",
        " Param_Force_Flush",
        "Param_Force_Flush2",
        "Param_Force_Flus",
        "/Param_Force_Flush",
        "anything",
        "",
    ],
)
def test_any_other_third_argument_is_ignored(loaded, service, argument):
    service.answer_with(Answer(500))
    loaded.run([loaded.tenant, loaded.native(), argument])
    expect_messages(
        loaded.messages(),
        [
            *say.started(loaded),
            *say.account_in("alice"),
            *say.refused(loaded, "alice", "a.log", 500),
            *say.account_out("alice"),
            *say.summary(accounts=1, send=1, error=1),
        ],
    )
    assert loaded.is_waiting("alice", "a.log")


@pytest.mark.parametrize("arguments", [["", ""], ["localhost", ""], ["", "."]])
def test_run_with_empty_arguments_finds_nothing(machine, arguments):
    machine.switch_log_on()
    machine.run(arguments)
    expect_messages(
        machine.messages(),
        [
            *say.started(machine, tenant=arguments[0], log_dir=arguments[1]),
            *say.summary(),
        ],
    )


@pytest.mark.parametrize(
    "tenant",
    [
        "",
        "not a host name",
        "%s%n%d%x",
        "host:port",
        "[::1",
        "localhost:99999",
        "user@",
        "größer.example",
        "a" * 5000,
    ],
    ids=lambda tenant: tenant[:20],
)
def test_invalid_tenant_sends_nothing_and_ends_cleanly(loaded, service, tenant):
    loaded.run([tenant, loaded.native()])
    assert loaded.is_waiting("alice", "a.log")
    assert not service.connections
    messages = loaded.messages()
    # A message is at most 1023 characters long.
    assert messages[:2] == [say.started(loaded, tenant=tenant)[0][:1023], say.SEPARATOR]
    assert messages[-1] == say.SEPARATOR
    assert any("exception" in message for message in messages)


def test_second_copy_ends_at_once_and_touches_nothing(machine, platform, service, tmp_path):
    second = Machine(platform, tmp_path / "second")
    second.sysroot = machine.sysroot
    second.account("bob")
    second.log("bob", "b.log")
    second.tenant = machine.tenant
    machine.switch_log_on()
    machine.account("alice")
    machine.logs("alice", "a.log", "c.log")
    order = machine.search_order("alice")
    hold = Hold()
    service.answer_with(Answer(200, hold=hold))

    with machine.start() as first:
        assert hold.reached.wait(30)
        before = machine.diagnostic_log.read_bytes()
        for arguments in ([second.tenant, second.native()], []):
            second.run(arguments)
            assert second.changes() == ([], [])
        assert first.is_running()
        assert len(service.connections) == 1
        assert machine.diagnostic_log.read_bytes() == before
        hold.release.set()
        first.wait()
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in("alice"),
            *(line for name in order for line in say.accepted(machine, "alice", name)),
            *say.account_out("alice"),
            *say.summary(accounts=1, send=1, ok=2),
        ],
    )

    # The next instance can start.
    second.run()
    assert len(service.requests) == 3


def test_instance_name_is_free_after_a_killed_copy(machine, service):
    machine.account("alice")
    machine.log("alice", "a.log")
    hold = Hold()
    service.answer_with(Answer(200, hold=hold))
    with machine.start() as first:
        assert hold.reached.wait(30)
        first.kill()
    machine.run()
    assert machine.is_archived("alice", "a.log")
