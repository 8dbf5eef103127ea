"""The program's diagnostic messages, for whole-log comparison."""

import re

SEPARATOR = "<< ------------------------------------------------------------ >>"
ANY_NUMBER = r"-?\d+"


def started(machine, tenant=None, log_dir=None, force=False):
    tenant = machine.tenant if tenant is None else tenant
    log_dir = machine.native() if log_dir is None else log_dir
    messages = [f"*** EXECUTE LOGUPLOAD *** Tenant [{tenant}] LogDir [{log_dir}]"]
    return messages + (["Force Flush"] if force else []) + [SEPARATOR]


def account_in(name):
    return [f"<UploadOneUser> in  [{name}]"]


def account_out(name):
    return [f"<UploadOneUser> out  [{name}]"]


def tried(machine, account, name):
    return [f"<UploadOneUser> UploadFile [{machine.native('Upload', account, name)}]"]


def accepted(machine, account, name, status=200, move_error=None):
    outcome = "<MOVE> Move OK" if move_error is None else f"<MOVE> Move NG [{move_error}]"
    return [
        *tried(machine, account, name),
        f"<UploadOneUser> Success [{status}]",
        f"<MOVE> UploadFile [{machine.native('Upload', account, name)}]",
        f"<MOVE> ArchiveFile [{machine.native('Archive', account, name)}]",
        outcome,
    ]


def refused(machine, account, name, status, body=""):
    deleted = ["<DeleteAuthFile> deleted auth file."] if status == 401 else []
    return [
        *tried(machine, account, name),
        *deleted,
        f"<UploadOneUser> Error [{status}, {body}]",
    ]


def transport_failure(account):
    """The end of an account after a transport failure; the exception's text is the library's own."""
    return [
        f"<UploadOneUser> exception socket[{account}]",
        re.compile(r"exception message \[.*", re.DOTALL),
    ]


def summary(*, accounts=0, send=0, no_send=0, ok=0, error=0):
    messages = [f"<< Result >> accounts:[{accounts}] send :[{send}] no send :[{no_send}]"]
    if ok or error:
        messages.append(f"<< Result >> files send ok:[{ok}] send error:[{error}]")
    return messages + [SEPARATOR]


def stopped():
    return ["<< Upload >> EXCEPTION", SEPARATOR]


def flushed(accounts):
    """The force-flush pass; `accounts` is a list of (name, list of moves).

    A move is None on success, otherwise its error number.
    """
    messages = ["<< SearchUploadDir >> start"]
    for name, moves in accounts:
        messages.append(f"<CleanupUploadDir> start [{name}]")
        for error in moves:
            messages.append(
                # After a successful move, the number is a leftover error code.
                re.compile(rf"<Cleanup MOVE> Move OK \[{ANY_NUMBER}\]")
                if error is None
                else f"<Cleanup MOVE> Move NG [{error}]"
            )
        messages.append(f"<CleanupUploadDir> end [{name}]")
    return messages + ["<< SearchUploadDir >> end"]
