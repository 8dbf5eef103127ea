#!/usr/bin/python3
"""Introduces defects into the program, one at a time, and checks that a test catches each.

The mutants are listed in mutants.toml. The work tree is not modified: each worker has its own copy of the
sources and its own build below build/mutation. After a mutant is compiled, the unit tests of its layer and
of the layers above run, then the end-to-end tests; the first failing test has caught it. If a mutant
survives all tests, the exit code is 1.

usage: run.py [--workers N] [--list] [ids...]
"""

import argparse
import json
import os
import pathlib
import queue
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
import tomllib

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORK = ROOT / "build" / "mutation"
LIST = pathlib.Path(__file__).with_name("mutants.toml")

# From bottom to top: the tests of any layer above may catch a defect.
LAYERS = ("platform", "debuglog", "logtree", "run", "credentials", "socket", "upload", "uploader", "status")
# Further test programs of a layer.
MORE_PROGRAMS = {
    "platform": ["kyd_certificate_store_tests"],
    "debuglog": ["kyd_default_log_tests"],
    "socket": ["kyd_certificate_sources_tests"],
}
BUILD_SECONDS = 900
# A test run hangs if it exceeds this multiple of the unmodified program's time plus a minute.
PATIENCE = 4


class ListError(Exception):
    """The list of mutants does not match the sources."""


class NotSound(Exception):
    """The unmodified program fails its tests."""


def unit_programs(layers):
    return [name for layer in layers
            for name in [f"kyd_{layer}_tests", *MORE_PROGRAMS.get(layer, [])]]


class Mutant:
    KEYS = {"id", "file", "find", "replace", "why", "hint"}

    def __init__(self, entry):
        name = entry.get("id", "?")
        if set(entry) - self.KEYS or self.KEYS - set(entry) - {"hint"}:
            raise ListError(f"{name}: wrong keys: {sorted(entry)}")
        self.id = name
        self.file = entry["file"]
        self.find = entry["find"].strip("\n")
        self.replace = entry["replace"].strip("\n")
        self.why = entry["why"]
        self.hint = entry.get("hint")  # an expression for pytest -k: the tests likely to catch it

    def apply_to(self, text):
        count = text.count(self.find)
        if count != 1:
            raise ListError(f"{self.id}: its text occurs {count} times in {self.file}")
        mutated = text.replace(self.find, self.replace)
        if mutated == text:
            raise ListError(f"{self.id}: changes nothing")
        return mutated

    def unit_targets(self):
        folder = self.file.split("/")[0]
        if folder == "companion":
            return ["kyd_companion_tests"]
        if folder not in LAYERS:
            raise ListError(f"{self.id}: {self.file} is not in any layer")
        if pathlib.Path(self.file).name.startswith("entry_"):
            return []
        return unit_programs(LAYERS[LAYERS.index(folder):])


def load_mutants():
    mutants, problems, ids = [], [], set()
    for entry in tomllib.loads(LIST.read_text("utf-8"))["mutant"]:
        try:
            mutant = Mutant(entry)
            if mutant.id in ids:
                raise ListError(f"{mutant.id}: duplicate id")
            ids.add(mutant.id)
            mutant.unit_targets()
            mutant.apply_to((ROOT / mutant.file).read_text("utf-8"))
            mutants.append(mutant)
        except (ListError, OSError) as problem:
            problems.append(str(problem))
    if problems:
        raise ListError("\n".join(problems))
    return mutants


class Finished:
    """The result of a command; the code is None after a time-out."""

    def __init__(self, code, output, seconds):
        self.code, self.output, self.seconds = code, output, seconds


def run(command, seconds, **how):
    """Runs a command in its own process group, so that a time-out also kills its children."""
    started = time.monotonic()
    process = subprocess.Popen(
        [os.fspath(word) for word in command],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        start_new_session=True,
        **how,
    )
    try:
        output, _ = process.communicate(timeout=seconds)
        code = process.returncode
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        output, _ = process.communicate()
        code = None
    return Finished(code, output.decode("utf-8", "replace"), time.monotonic() - started)


class Verdict:
    def __init__(self, kind, detail=""):
        self.kind, self.detail = kind, detail  # "caught", "timeout", "SURVIVED" or "ERROR"


class Worker:
    """A copy of the sources with its own build."""

    def __init__(self, number, build_jobs):
        self.folder = WORK / str(number)
        self.sources = self.folder / "src"
        self.build_folder = self.folder / "build"
        self.temporary = self.folder / "tmp"
        self.build_jobs = build_jobs
        self.limits = {}  # seconds by test program

    # Sources and build.

    def copy_sources(self):
        """Updates the copy; does not touch unchanged files, so that builds stay incremental."""
        listed = subprocess.run(
            ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
            cwd=ROOT, stdout=subprocess.PIPE, check=True,
        ).stdout.decode("utf-8").split("\0")
        wanted = {name for name in listed if name and (ROOT / name).is_file()}
        for name in wanted:
            target = self.sources / name
            content = (ROOT / name).read_bytes()
            if not target.is_file() or target.read_bytes() != content:
                target.parent.mkdir(parents=True, exist_ok=True)
                target.write_bytes(content)
                shutil.copymode(ROOT / name, target)
        for path in self.sources.rglob("*"):
            inside = path.relative_to(self.sources)
            if path.is_file() and "__pycache__" not in inside.parts and str(inside) not in wanted:
                path.unlink()

    def configure(self):
        # No -Werror: the compiler must not catch a mutant, for example by an unused variable. Library
        # assertions are off, as in the product.
        return run(
            ["cmake", "-S", self.sources, "-B", self.build_folder, "-G", "Ninja",
             "-DCMAKE_BUILD_TYPE=None", "-DCMAKE_CXX_FLAGS=-O0 -DNDEBUG",
             "-DKYD_CPPREST_FLAVOUR=linux", "-DKYD_WARNINGS_AS_ERRORS=OFF"],
            BUILD_SECONDS * 2,
        )

    def build(self, target):
        return run(
            ["cmake", "--build", self.build_folder, "--target", target,
             "--parallel", str(self.build_jobs)],
            BUILD_SECONDS,
        )

    # Tests.

    def environment(self):
        """Redirects the tests' temporary files to the worker's folder."""
        shutil.rmtree(self.temporary, ignore_errors=True)
        self.temporary.mkdir(parents=True)
        return dict(os.environ, TMPDIR=str(self.temporary), PYTHONDONTWRITEBYTECODE="1")

    def run_unit(self, target):
        return run(
            [self.build_folder / "tests" / target, "--gtest_fail_fast", "--gtest_color=no"],
            self.limits.get(target, BUILD_SECONDS), env=self.environment(), cwd=self.folder,
        )

    def run_end_to_end(self, *selection):
        # The tests of the test service do not start the program.
        return run(
            [sys.executable, "-m", "pytest", "-x", "-q", "-p", "no:cacheprovider", "tests/e2e",
             "--ignore=tests/e2e/test_service.py", "--platform=linux",
             f"--linux-bin={self.build_folder / 'bin'}", *selection],
            self.limits.get("e2e", BUILD_SECONDS), env=self.environment(), cwd=self.sources,
        )

    @staticmethod
    def failed_unit_test(output):
        """Returns the first test that failed or in which the program crashed."""
        failed = re.search(r"^\[  FAILED  \] ([^\s,]+)", output, re.MULTILINE)
        if failed:
            return failed[1]
        begun = re.findall(r"^\[ RUN      \] (\S+)", output, re.MULTILINE)
        return (begun[-1] if begun else "the program's start") + " (died)"

    @staticmethod
    def failed_end_to_end_test(output):
        failed = re.search(r"^(?:FAILED|ERROR) \S*?(\w+\.py::\S+)", output, re.MULTILINE)
        return failed[1] if failed else None

    # Running mutants.

    def make_sound(self):
        """Builds and tests the unmodified program."""
        self.copy_sources()
        for finished in (self.configure(), self.build("all")):
            if finished.code != 0:
                raise NotSound(finished.output)
        for target in unit_programs(LAYERS) + ["kyd_companion_tests"]:
            finished = self.run_unit(target)
            if finished.code != 0:
                raise NotSound(f"{target} fails without a mutant:\n{finished.output}")
            self.limits[target] = 60 + PATIENCE * finished.seconds
        finished = self.run_end_to_end()
        if finished.code != 0:
            raise NotSound(
                f"the end-to-end tests fail without a mutant:\n{finished.output}")
        self.limits["e2e"] = 60 + PATIENCE * finished.seconds

    def judge(self, mutant):
        path = self.sources / mutant.file
        original = path.read_text("utf-8")
        path.write_text(mutant.apply_to(original), "utf-8")
        try:
            return self.judge_applied(mutant)
        finally:
            path.write_text(original, "utf-8")

    def judge_applied(self, mutant):
        for target in mutant.unit_targets():
            built = self.build(target)
            if built.code != 0:
                return Verdict("ERROR", "does not compile:\n" + built.output)
            finished = self.run_unit(target)
            if finished.code is None:
                return Verdict("timeout", target)
            if finished.code != 0:
                return Verdict("caught", self.failed_unit_test(finished.output))
        built = self.build("all")
        if built.code != 0:
            return Verdict("ERROR", "does not compile:\n" + built.output)
        # Try the hinted tests first, because they are quick; a mutant survives only the whole suite.
        for selection in ([["-k", mutant.hint]] if mutant.hint else []) + [[]]:
            finished = self.run_end_to_end(*selection)
            if finished.code is None:
                return Verdict("timeout", "end-to-end tests")
            if finished.code == 5 and selection:
                return Verdict("ERROR", f"no test matches its hint: {mutant.hint}")
            if finished.code == 1:
                test = self.failed_end_to_end_test(finished.output)
                if test is None:
                    return Verdict("ERROR", "pytest failed:\n" + finished.output)
                return Verdict("caught", test)
            if finished.code != 0:
                return Verdict("ERROR", "pytest could not run:\n" + finished.output)
        return Verdict("SURVIVED", mutant.why)


class Board:
    """Collects the verdicts of all workers."""

    def __init__(self):
        self.lock = threading.Lock()
        self.verdicts = {}
        self.broken = None

    def put(self, mutant, verdict, seconds):
        with self.lock:
            self.verdicts[mutant.id] = verdict
            word = {"caught": "caught by"}.get(verdict.kind, verdict.kind)
            print(f"{mutant.id:40} {word} {verdict.detail}  [{seconds:.0f} s]", flush=True)

    def fail(self, problem):
        with self.lock:
            self.broken = self.broken or str(problem)


def work(worker, todo, board):
    try:
        worker.make_sound()
        print(f"worker {worker.folder.name}: the unmodified program passes its tests", flush=True)
        while board.broken is None:
            mutant = todo.get_nowait()
            started = time.monotonic()
            board.put(mutant, worker.judge(mutant), time.monotonic() - started)
    except queue.Empty:
        pass
    except Exception as problem:  # any failure of a worker must end the whole run visibly
        board.fail(problem)


def chosen(mutants, ids):
    unknown = set(ids) - {mutant.id for mutant in mutants}
    if unknown:
        raise ListError("unknown: " + ", ".join(sorted(unknown)))
    return [mutant for mutant in mutants if not ids or mutant.id in ids]


def summarise(mutants, board):
    kinds = [board.verdicts[mutant.id].kind for mutant in mutants]
    caught = kinds.count("caught") + kinds.count("timeout")
    survivors = [mutant.id for mutant in mutants if board.verdicts[mutant.id].kind == "SURVIVED"]
    errors = [mutant.id for mutant in mutants if board.verdicts[mutant.id].kind == "ERROR"]
    report = {name: [verdict.kind, verdict.detail] for name, verdict in board.verdicts.items()}
    (WORK / "report.json").write_text(json.dumps(report, indent=1), "utf-8")
    for name in survivors:
        print(f"survived: {name}")
    for name in errors:
        print(f"error: {name}")
    line = f"{len(mutants)} mutants, {caught} caught, {len(survivors)} survived"
    timeouts = kinds.count("timeout")
    line += f", {timeouts} caught by time-out" if timeouts else ""
    print(line + (f", {len(errors)} in error" if errors else ""))
    return 1 if survivors or errors else 0


def main():
    parser = argparse.ArgumentParser(description="Checks that the tests catch defects.")
    parser.add_argument("ids", nargs="*", help="only these mutants")
    parser.add_argument("--workers", type=int, default=min(2, os.cpu_count() or 1))
    parser.add_argument("--list", action="store_true", help="list the mutants and exit")
    options = parser.parse_args()
    try:
        mutants = chosen(load_mutants(), options.ids)
    except (ListError, tomllib.TOMLDecodeError) as problem:
        print(f"{LIST.name}: {problem}", file=sys.stderr)
        return 2
    if options.list:
        for mutant in mutants:
            print(f"{mutant.id:40} {mutant.file}: {mutant.why}")
        print(f"{len(mutants)} mutants")
        return 0

    todo = queue.SimpleQueue()
    for mutant in mutants:
        todo.put(mutant)
    count = max(1, min(options.workers, len(mutants)))
    jobs = max(1, (os.cpu_count() or 1) // count)
    board = Board()
    threads = [
        threading.Thread(target=work, args=(Worker(number, jobs), todo, board))
        for number in range(1, count + 1)
    ]
    print(f"{len(mutants)} mutants, {count} workers; starting with the unmodified program", flush=True)
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if board.broken is not None:
        print(board.broken, file=sys.stderr)
        return 2
    return summarise(mutants, board)


if __name__ == "__main__":
    sys.exit(main())
