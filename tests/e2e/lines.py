"""Connections to the tenant: services for one test, and the two outcomes of a run."""

from service.log_service import LogService

from . import messages as say
from .harness import expect_messages


def serve(machine, identity, **options):
    """Starts a service with this identity at the tenant address; it knows the machine's accounts."""
    service = LogService(identity, accounts=machine.accounts.values(), **options)
    machine.tenant = service.tenant
    return service


def expect_all_sent(machine, account="alice"):
    """Runs the program, which sends both files of the only account."""
    machine.run()
    assert machine.is_archived(account, "a.log") and machine.is_archived(account, "b.log")
    assert machine.messages()[-3:] == say.summary(accounts=1, send=1, ok=2)


def expect_nothing_sent(machine, account="alice"):
    """Runs the program; the first file fails in transport: the account ends, the run continues."""
    first = machine.search_order(account)[0]
    machine.run()
    assert machine.is_waiting(account, "a.log") and machine.is_waiting(account, "b.log")
    assert not machine.result_files()
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in(account),
            *say.tried(machine, account, first),
            *say.transport_failure(account),
            *say.summary(accounts=1),
        ],
    )
