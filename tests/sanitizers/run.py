#!/usr/bin/python3
"""Runs the Linux tests in a sanitizer build, or complete runs of the program under Valgrind.

Every report counts, even that of a program that a test kills or whose result it ignores: the sanitizers write
their reports to files, and there must be none at the end. The suppression files list what is intentional or
not ours, with reasons.

usage: run.py asan|tsan|valgrind
"""

import os
import shutil
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]

# A distinct exit code, so that no test takes it for the program's.
OPTIONS = {
    "asan": {
        "ASAN_OPTIONS": "detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1:"
        "check_initialization_order=1:exitcode=99",
        "UBSAN_OPTIONS": f"suppressions={HERE / 'undefined.supp'}:print_stacktrace=1:"
        "halt_on_error=1:exitcode=99",
        "LSAN_OPTIONS": f"suppressions={HERE / 'leaks.supp'}:print_suppressions=0:exitcode=99",
    },
    "tsan": {
        "TSAN_OPTIONS": "halt_on_error=1:exitcode=99:second_deadlock_stack=1:"
        # Tests that simulate failing system calls do so in a SIGSYS handler, which runs synchronously within
        # the call. The program has no handlers.
        "report_signal_unsafe=0",
    },
}
LONGEST_REPORT = 20_000


def environment(build, reports):
    options = {
        name: f"{value}:log_path={reports / 'report'}" for name, value in OPTIONS[build].items()
    }
    return {**os.environ, **options}


def run_tests(build):
    reports = ROOT / "build" / build / "reports"
    shutil.rmtree(reports, ignore_errors=True)
    reports.mkdir(parents=True)
    tests = [sys.executable, ROOT / "tests/run.py", "--platform=linux", f"--linux-build={build}"]
    finished = subprocess.run(tests, cwd=ROOT, env=environment(build, reports), check=False)
    found = sorted(path for path in reports.iterdir() if path.stat().st_size)
    for path in found:
        print(f"\n{path.name}:\n{path.read_text('utf-8', 'replace')[:LONGEST_REPORT]}")
    print(f"{build}: {len(found)} reports, in build/{build}/reports")
    return 1 if found or finished.returncode != 0 else 0


def main():
    if len(sys.argv) != 2 or sys.argv[1] not in (*OPTIONS, "valgrind"):
        sys.exit(__doc__)
    if sys.argv[1] == "valgrind":
        import memcheck

        return memcheck.main()
    return run_tests(sys.argv[1])


if __name__ == "__main__":
    sys.exit(main())
