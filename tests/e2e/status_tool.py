"""Runs KydUploadStatus, and builds the trees that it examines."""

import datetime
import json
import os
import subprocess
import tempfile
import threading
import time

from .result_text import block

OK, WARNING, CRITICAL, UNKNOWN, USAGE = 0, 1, 2, 3, 64
HOUR = 3600
SECONDS = 60
MANY = 100_000  # files of a large tree
# Limits for examining such a tree, libraries included.
MOST_CPU_SECONDS = 0.5
MOST_BYTES = 10_000_000


class Finished:
    """The result of a run of the tool."""

    def __init__(self, code, output, errors):
        self.code = code
        self.output = output.decode("utf-8")
        self.errors = errors.decode("utf-8")

    def json(self):
        return json.loads(self.output)


def command(machine, *arguments):
    program = machine.program_folder / machine.platform.status_name
    return machine.platform.command(program, arguments)


def status(machine, *arguments, log_dir=None):
    """Runs the tool and checks that it changes nothing below the log directory."""
    log_dir = machine.log_dir if log_dir is None else log_dir
    before = stamps(machine)
    finished = subprocess.run(
        command(machine, machine.platform.native_path(log_dir), *arguments),
        env=machine.environment,
        cwd=machine.working_folder,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        timeout=SECONDS,
        check=False,
    )
    assert stamps(machine) == before
    errors = machine.platform.own_output(finished.stderr)
    return Finished(finished.returncode, finished.stdout, errors)


def stamps(machine):
    """Returns everything in which a change would show."""
    found = machine.snapshot()
    for name in found:
        status_of = (machine.log_dir / name).lstat()
        found[name] = (found[name], status_of.st_mtime_ns, status_of.st_mode, status_of.st_size)
    return found


def day_before(days):
    return datetime.date.today() - datetime.timedelta(days=days)


def result_path(machine, day):
    return machine.log_dir / "UploadResult" / f"UploadResult{day:%Y%m%d}.log"


def result(day, sent, failed, errors=()):
    return block(
        f"{day:%Y:%m:%d} 08:00:00", total=3, target=2, not_subject=1, success=sent, error=failed,
        log_dir="x", errors=errors,
    )


def write_result(machine, day, *blocks):
    result_path(machine, day).write_bytes("".join(blocks).encode("utf-16-le"))


def of_day(report, day):
    return next(one for one in report["days"] if one["date"] == f"{day:%Y-%m-%d}")


def of_account(report, name):
    return next(one for one in report["accounts"] if one["name"] == name)


def make_older(machine, account, name, seconds):
    then = time.time() - seconds
    os.utime(machine.upload(account, name), (then, then))


def run_bare(machine, *arguments):
    finished = subprocess.run(
        command(machine, *arguments), env=machine.environment, cwd=machine.working_folder,
        stdin=subprocess.DEVNULL, capture_output=True, timeout=SECONDS, check=False,
    )
    return Finished(
        finished.returncode, finished.stdout, machine.platform.own_output(finished.stderr)
    )


def run_at_little_cost(machine, *arguments):
    """Runs the tool within the limits of time and memory; returns its output."""
    best = float("inf")
    with tempfile.TemporaryFile() as output:
        for _ in range(5):  # the same work takes longer on a busy machine
            output.truncate(0)
            process = subprocess.Popen(
                # The address space includes all memory in use. The names alone would need more data than this.
                ["prlimit", f"--as={MOST_BYTES}", "--data=2000000", *command(machine, *arguments)],
                env=machine.environment, stdin=subprocess.DEVNULL, stdout=output,
            )
            timer = threading.Timer(SECONDS, process.kill)
            timer.start()
            _, status_bits, used = os.wait4(process.pid, 0)
            timer.cancel()
            process.returncode = os.waitstatus_to_exitcode(status_bits)
            assert process.returncode == OK
            best = min(best, used.ru_utime + used.ru_stime)
            if best <= MOST_CPU_SECONDS:
                break
            output.seek(0)
        print(f"\n{MANY} waiting files: {best:.2f} s of the processor")
        # In a coverage build, counting lines and branches takes longer than the work itself.
        assert best <= MOST_CPU_SECONDS or machine.platform.is_built_with("gcov")
        output.seek(0)
        return output.read()
