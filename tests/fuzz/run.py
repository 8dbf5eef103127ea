#!/usr/bin/python3
"""Runs every fuzz target for its share of the time, and prints a summary.

A target is a libFuzzer program of the preset "fuzz" in build/fuzz/fuzzers, or answers.py, which runs the real
program. Inputs found by the fuzzers are kept in build/fuzz/corpus/<target>, crashing inputs in
build/fuzz/crashes. Copy a crashing input, with a descriptive name, to tests/fuzz/corpus/<target>, where the
unit tests replay it, and fix the defect.

usage: run.py [--targets a,b] [seconds]
"""

import argparse
import concurrent.futures
import os
import re
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
FUZZERS = ROOT / "build" / "fuzz" / "fuzzers"
LEARNT = ROOT / "build" / "fuzz" / "corpus"
CRASHES = ROOT / "build" / "fuzz" / "crashes"
CORPUS = ROOT / "tests" / "fuzz" / "corpus"
ANSWERS = "answers"
PROCESSES = 2
LONGEST_INPUT = {"answer_text": 8192}  # bytes; all others:
USUAL_LONGEST_INPUT = 4096
SECONDS_OF_AN_INPUT = 20
MEGABYTES = 1024
GRACE_SECONDS = 300  # for a process to exit after its time


def all_targets():
    prefix = "kyd_fuzz_"
    found = [path.name.removeprefix(prefix) for path in FUZZERS.glob(prefix + "*")]
    return [*sorted(found), ANSWERS]


def environment():
    suppressions = ROOT / "tests" / "sanitizers" / "undefined.supp"
    leaks = suppressions.with_name("leaks.supp")
    return {
        **os.environ,
        "ASAN_OPTIONS": "detect_leaks=1",
        "UBSAN_OPTIONS": f"print_stacktrace=1:suppressions={suppressions}",
        "LSAN_OPTIONS": f"suppressions={leaks}:print_suppressions=0",
    }


def libfuzzer_command(target, seconds):
    learnt = LEARNT / target
    learnt.mkdir(parents=True, exist_ok=True)
    return [
        FUZZERS / f"kyd_fuzz_{target}",
        f"-max_total_time={max(1, round(seconds))}",
        f"-max_len={LONGEST_INPUT.get(target, USUAL_LONGEST_INPUT)}",
        f"-timeout={SECONDS_OF_AN_INPUT}",
        f"-rss_limit_mb={MEGABYTES}",
        f"-artifact_prefix={CRASHES}/{target}-",
        "-print_final_stats=1",
        learnt,
        CORPUS / target,
    ]


def answers_command(seconds):
    # Prefer the build with sanitizers.
    asan = ROOT / "build" / "asan" / "bin"
    bin_folder = asan if (asan / "KydLogUploader").exists() else ROOT / "build" / "linux" / "bin"
    script = Path(__file__).with_name("answers.py")
    return [
        sys.executable, script, f"--bin={bin_folder}", f"--seconds={seconds}",
        f"--crashes={CRASHES}",
    ]


def last_number(pattern, text):
    found = re.findall(pattern, text)
    return found[-1] if found else "-"


def run(target, seconds):
    """Runs a target; returns its row of the table, and its output if it failed."""
    command = answers_command(seconds) if target == ANSWERS else libfuzzer_command(target, seconds)
    started = time.monotonic()
    try:
        finished = subprocess.run(
            command, cwd=ROOT, env=environment(), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, timeout=seconds + GRACE_SECONDS, check=False,
        )
        output, code = finished.stdout.decode("utf-8", "replace"), finished.returncode
    except subprocess.TimeoutExpired as expired:
        output, code = (expired.stdout or b"").decode("utf-8", "replace"), "time-out"
    row = (
        target,
        last_number(r"stat::number_of_executed_units:\s+(\d+)", output),
        f"{time.monotonic() - started:.0f}",
        last_number(r"\bcov: (\d+)", output),
        last_number(r"\bft: (\d+)", output),
        last_number(r"\bcorp: (\d+)", output),
        "good" if code == 0 else f"FAILED ({code})",
    )
    return row, "" if code == 0 else f"{target}:\n{output[-20000:]}"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--targets", help="comma-separated targets (default: all)")
    parser.add_argument("seconds", nargs="?", type=float, default=240, help="in total (default: 240)")
    options = parser.parse_args()
    targets = options.targets.split(",") if options.targets else all_targets()
    unknown = sorted(set(targets) - set(all_targets()))
    if unknown:
        parser.error(f"unknown target: {', '.join(unknown)}; known are: {', '.join(all_targets())}")
    CRASHES.mkdir(parents=True, exist_ok=True)
    share = options.seconds * min(PROCESSES, len(targets)) / len(targets)
    with concurrent.futures.ThreadPoolExecutor(PROCESSES) as both:
        results = list(both.map(lambda target: run(target, share), targets))
    for _, failure in results:
        if failure:
            print(failure)
    form = "{:18}{:>12}{:>9}{:>8}{:>10}{:>8}  {}"
    print(form.format("target", "executions", "seconds", "edges", "features", "corpus", "result"))
    for row, _ in results:
        print(form.format(*row))
    failed = [row[0] for row, failure in results if failure]
    if failed:
        print(f"fuzz: {', '.join(failed)} failed, see above; crashing inputs are in "
              f"{CRASHES.relative_to(ROOT)}/")
        return 1
    print("fuzz: nothing found")
    return 0


if __name__ == "__main__":
    sys.exit(main())
