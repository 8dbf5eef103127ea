#!/usr/bin/python3
"""Runs all tests on the chosen platforms; the last line is "N passed, N failed".

Unit tests are GoogleTest programs, run natively and under Wine; end-to-end tests are pytest functions that
start the real executable of each platform. The tests for Windows also run on Windows itself.
"""

import argparse
import concurrent.futures
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree

import wine

ROOT = pathlib.Path(__file__).resolve().parent.parent
PLATFORMS = ("linux", "windows", "windows-msvc", "msvc")
WINDOWS_ITSELF = "msvc"
UNIT_TIMEOUT_SECONDS = 600


class Tally:
    """The results of a group of tests."""

    def __init__(self, name):
        self.name = name
        self.passed = self.failed = self.skipped = 0
        self.seconds = 0.0
        self.failures = []

    def add(self, other):
        self.passed += other.passed
        self.failed += other.failed
        self.skipped += other.skipped

    def fail(self, name):
        self.failed += 1
        self.failures.append(name)


def tell(text):
    """Prints in one piece and flushes, because the platforms' tests run in parallel."""
    sys.stdout.write(text + "\n")
    sys.stdout.flush()


def runs_in_wine(platform):
    return platform not in ("linux", WINDOWS_ITSELF)


def program_suffix(platform):
    return "" if platform == "linux" else ".exe"


def wine_prefix(platform):
    return ROOT / "build" / platform / "wineprefix"


def unit_programs(platform, build):
    folder = ROOT / "build" / build / "tests"
    return sorted(folder.glob("*_tests" + program_suffix(platform)))


def run_unit_program(platform, build, program):
    """Runs a GoogleTest program. Exiting without a report counts as a failure."""
    tally = Tally(f"{program.stem} ({platform})")
    started = time.monotonic()
    with tempfile.TemporaryDirectory() as folder:
        report = pathlib.Path(folder) / "report.json"
        arguments = [str(program), "--gtest_brief=1", f"--gtest_output=json:{report}"]
        environment = None
        libraries = ROOT / "build" / build / "bin"  # the folder of the configuration library
        if platform == WINDOWS_ITSELF:
            environment = {**os.environ, "PATH": f"{libraries};{os.environ['PATH']}"}
        elif runs_in_wine(platform):
            arguments[2] = f"--gtest_output=json:Z:{report}"
            arguments = wine.command(*arguments)
            environment = wine.environment(wine_prefix(platform))
            environment["WINEPATH"] = f"Z:{libraries}"
        try:
            finished = subprocess.run(
                arguments,
                env=environment,
                cwd=folder,
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT,
                timeout=UNIT_TIMEOUT_SECONDS,
                check=False,
            )
            output, code = finished.stdout, finished.returncode
        except subprocess.TimeoutExpired as expired:
            output, code = expired.stdout or b"", "time-out"
        read_unit_report(report, tally)
    if code != 0 and tally.failed == 0:
        tally.fail(f"{program.name} exited with {code}")
    if tally.passed + tally.failed == 0:
        tally.fail(f"{program.name} ran no test")
    if tally.failed:
        tell(output.decode("utf-8", "replace"))
    tally.seconds = time.monotonic() - started
    return tally


def read_unit_report(report, tally):
    if not report.exists():
        return
    for suite in json.loads(report.read_text("utf-8"))["testsuites"]:
        for test in suite["testsuite"]:
            name = f"{suite['name']}.{test['name']}"
            if test.get("failures"):
                tally.fail(name)
            elif test["result"] == "SKIPPED":
                tally.skipped += 1
            elif test["status"] == "RUN":
                tally.passed += 1


def check_formatting():
    """Checks the format of every source, as one test per file. Other versions of the formatter differ."""
    tally = Tally("formatting")
    started = time.monotonic()
    formatter = shutil.which("clang-format-14")
    if formatter is None:
        tell("formatting: skipped, this release has no clang-format-14")
    listed = subprocess.run(
        ["git", "ls-files", "*.h", "*.cpp"], cwd=ROOT, stdout=subprocess.PIPE, check=True
    )
    for name in listed.stdout.decode("utf-8").split():
        if formatter is None:
            tally.skipped += 1
            continue
        checked = subprocess.run(
            [formatter, "--dry-run", "--Werror", name], cwd=ROOT, capture_output=True, check=False
        )
        if checked.returncode == 0:
            tally.passed += 1
        else:
            tally.fail(name)
    tally.seconds = time.monotonic() - started
    return tally


def run_pytest(name, folder, arguments):
    tally = Tally(name)
    started = time.monotonic()
    with tempfile.TemporaryDirectory() as reports:
        report = pathlib.Path(reports) / "report.xml"
        command = [
            sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", str(ROOT / folder),
            f"--junitxml={report}", *arguments,
        ]
        finished = subprocess.run(
            command, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, check=False,
        )
        code = finished.returncode
        tell(f"{name}:\n{finished.stdout.decode('utf-8', 'replace')}")
        if report.exists():
            for case in xml.etree.ElementTree.parse(report).iter("testcase"):
                kinds = {child.tag for child in case}
                if kinds & {"failure", "error"}:
                    tally.fail(f"{case.get('classname')}.{case.get('name')}")
                elif "skipped" in kinds:
                    tally.skipped += 1
                else:
                    tally.passed += 1
    if code != 0 and tally.failed == 0:
        tally.fail(f"pytest exited with {code}")
    tally.seconds = time.monotonic() - started
    return tally


def run_library_tests(platform, build):
    """Tests the patches of the REST library with the probe."""
    probe = ROOT / "build" / build / "tests" / f"probe{program_suffix(platform)}"
    arguments = [f"--probe={probe}"]
    if runs_in_wine(platform):
        # Starting under Wine is slow, and its process exit has little that is specific to Windows.
        arguments += [f"--wine-prefix={wine_prefix(platform)}", "--leave-runs=1"]
    return run_pytest(f"REST library ({platform})", "cmake/cpprestsdk/tests", arguments)


def run_document_tests(build):
    """Compares the documents with the sources and the native programs; run once, not per platform."""
    return run_pytest("documents", "tests/documents", [f"--bin={ROOT / 'build' / build / 'bin'}"])


def run_end_to_end(platform, build, extra):
    arguments = [f"--platform={platform}", f"--{platform}-bin={ROOT / 'build' / build / 'bin'}"]
    return run_pytest(f"end to end ({platform})", "tests/e2e", [*arguments, *extra])


def run_platform(platform, options):
    """Runs all chosen groups of a platform in sequence."""
    if runs_in_wine(platform):
        with wine.Server(wine_prefix(platform)):
            return run_groups(platform, platform, options)
    return run_groups(platform, options.linux_build, options)


def run_groups(platform, build, options):
    tallies = []
    if not options.e2e:
        programs = unit_programs(platform, build)
        if not programs:
            sys.exit(f"no unit tests in build/{build}: run './dev build {platform}'")
        tallies += [run_unit_program(platform, build, program) for program in programs]
    if not (options.unit or options.e2e):
        tallies.append(run_library_tests(platform, build))
    if not options.unit:
        tallies.append(run_end_to_end(platform, build, options.pytest))
    return tallies


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument(
        "--platform", choices=PLATFORMS, action="append",
        help="only this platform; may be repeated (default: linux and windows); msvc is Windows itself",
    )
    parser.add_argument("--unit", action="store_true", help="only the unit tests")
    parser.add_argument("--e2e", action="store_true", help="only the end-to-end tests")
    parser.add_argument(
        "--linux-build", default="linux", metavar="PRESET",
        help="the build to test for Linux, such as asan",
    )
    parser.add_argument("pytest", nargs="*", help="further arguments for pytest, after --")
    options = parser.parse_args()

    tallies = []
    platforms = options.platform or ("linux", "windows")
    # Sources and documents do not depend on the platform, and their checks need Debian's tools.
    if not (options.e2e or options.unit or WINDOWS_ITSELF in platforms):
        tallies += [
            check_formatting(),
            run_document_tests(options.linux_build),
            run_pytest("build files", "tests/build", []),
        ]
    with concurrent.futures.ThreadPoolExecutor(len(platforms)) as every:
        for of_one in every.map(lambda platform: run_platform(platform, options), platforms):
            tallies += of_one

    total = Tally("all")
    print()
    for tally in tallies:
        total.add(tally)
        print(
            f"{tally.name:48} {tally.passed:5} passed {tally.failed:4} failed "
            f"{tally.skipped:4} skipped {tally.seconds:7.1f} s"
        )
        for name in tally.failures:
            print(f"    failed: {name}")
    print(f"{total.skipped} skipped")
    print(f"{total.passed} passed, {total.failed} failed")
    return 1 if total.failed else 0


if __name__ == "__main__":
    sys.exit(main())
