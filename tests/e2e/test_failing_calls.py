"""Every call to the system that the program makes fails once, in turn."""

import collections

import pytest

from .outcome import expect_no_process_left

# The library goes on without what these were to tell it, until its time-out of 30 s is over.
_MADE_UP_BY_TIME_OUT = {"epoll_ctl", "wake"}


@pytest.fixture
def loaded(machine):
    machine.switch_log_on()
    for account in ("alice", "bob"):
        machine.account(account)
    machine.logs("alice", "a.log", "b.log")
    machine.log("bob", "c.log")
    return machine


def calls_of_a_run(machine, environment):
    """How often the program calls each function."""
    calls = machine.folder / "calls"
    machine.more_environment = {**environment, "KYD_CALLS": str(calls)}
    machine.run()
    return collections.Counter(calls.read_text(encoding="ascii").split())


def lay_out(machine, files):
    """Everything as it was before the first run."""
    for (account, name), content in files.items():
        machine.archive(account, name).unlink(missing_ok=True)
        machine.log(account, name, content)
        machine.seal(account)


def test_each_call_to_the_system_fails_once(request, loaded, service):
    machine = loaded
    library = machine.platform.bin_folder.parent / "tests/failing-call.so"
    if machine.platform.name == "windows":
        pytest.skip("only the native program can be given failing calls from outside")
    if machine.platform.is_built_with("asan", "tsan"):
        pytest.skip("behind this library runs with a sanitizer end early or not at all")
    at_length = request.config.getoption("--endurance") == "long"
    environment = {"LD_PRELOAD": str(library)}
    files = {file: machine.content(*file) for file in machine.made()}
    counts = calls_of_a_run(machine, environment)
    print(sum(counts.values()), "calls", dict(counts))
    assert counts.keys() >= {"open", "read", "write", "readdir", "renameat2", "socket", "flock"}
    assert len(service.requests) == len(files)

    hindered = 0
    for call, count in sorted(counts.items()):
        if call in _MADE_UP_BY_TIME_OUT and not at_length:
            continue
        for number in range(1, count + 1):
            print(call, number)  # for the one that a failure is about
            lay_out(machine, files)
            earlier = len(service.requests)
            machine.more_environment = {**environment, "KYD_FAILING_CALL": f"{call}:{number}"}
            machine.run()
            accepted = [one.body for one in service.requests[earlier:] if one.status == 200]
            waiting = [file for file in files if machine.is_waiting(*file)]
            assert all(files[file] in accepted for file in files if file not in waiting)
            hindered += len(waiting) > 0
    # What fails has its effect: without credentials, connections or a folder nothing is sent.
    assert hindered > 20
    expect_no_process_left(machine)
