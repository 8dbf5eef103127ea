#!/usr/bin/python3
"""Runs all Linux tests with the coverage build and compares the results with their limits.

The tables show lines and branches of the product's own folders; build/coverage/report has all files line by
line, as HTML and as JSON. Exception edges are not decisions of the program and do not count as branches. A
program that a test kills writes no counts; all others do.
"""

import json
import pathlib
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "coverage"
REPORT = BUILD / "report"
FOLDERS = (
    "status", "uploader", "upload", "socket", "credentials", "run", "logtree", "debuglog", "platform",
    "companion",
)
LOWEST = {"line": 97.0, "branch": 90.0}  # percent, for all folders together


def forget_old_counts():
    for path in BUILD.rglob("*.gcda"):
        path.unlink()


def run_tests():
    tests = [ROOT / "tests" / "run.py", "--platform=linux", "--linux-build=coverage"]
    for kind in ("--unit", "--e2e"):  # without the REST library's, which is not instrumented
        if subprocess.run([sys.executable, *tests, kind], cwd=ROOT, check=False).returncode != 0:
            sys.exit("coverage: a test failed")


def check_counts_were_written():
    """Only the end-to-end tests run the entry: if it has no counts, they have not written any."""
    if not list(BUILD.rglob("entry_posix.cpp.gcda")):
        sys.exit("coverage: no run of the program has written counts")


def collect():
    shutil.rmtree(REPORT, ignore_errors=True)
    REPORT.mkdir(parents=True)
    subprocess.run(
        [
            "gcovr", "--root", ROOT, "-j", "2",
            *[word for folder in FOLDERS for word in ("--filter", f"{ROOT}/{folder}/")],
            "--exclude-throw-branches", "--exclude-unreachable-branches", "--decisions",
            "--json-summary", REPORT / "summary.json", "--json", REPORT / "lines.json",
            "--html-details", REPORT / "index.html", "--txt", REPORT / "lines.txt", BUILD,
        ],
        cwd=ROOT, check=True,
    )
    return json.loads((REPORT / "summary.json").read_text("utf-8"))["files"]


def percent(covered, total):
    return 100.0 * covered / total if total else 100.0


def table(files):
    """Prints one row per folder; returns the percentages of all folders together."""
    sums = {folder: dict.fromkeys(("lc", "lt", "bc", "bt"), 0) for folder in (*FOLDERS, "all")}
    for file in files:
        for name in (file["filename"].split("/")[0], "all"):
            row = sums[name]
            row["lc"] += file["line_covered"]
            row["lt"] += file["line_total"]
            row["bc"] += file["branch_covered"]
            row["bt"] += file["branch_total"]
    print(f"\n{'folder':14}{'lines':>16}{'':>9}{'branches':>16}")
    for name, row in sums.items():
        print(f"{name:14}{row['lc']:>9} /{row['lt']:>5}{percent(row['lc'], row['lt']):>8.1f}%"
              f"{row['bc']:>9} /{row['bt']:>5}{percent(row['bc'], row['bt']):>8.1f}%")
        if name != "all" and row["lt"] == 0:
            sys.exit(f"coverage: no counts for {name}")
    whole = sums["all"]
    return {"line": percent(whole["lc"], whole["lt"]), "branch": percent(whole["bc"], whole["bt"])}


def uncovered_lines(folders):
    data = json.loads((REPORT / "lines.json").read_text("utf-8"))
    for file in data["files"]:
        if not folders or file["file"].split("/")[0] in folders:
            for line in file["lines"]:
                if line["count"] == 0 and not line.get("gcovr/noncode"):
                    number = line["line_number"]
                    text = (ROOT / file["file"]).read_text("utf-8").splitlines()[number - 1]
                    print(f"not run: {file['file']}:{number}: {text.strip()}")


def main():
    forget_old_counts()
    run_tests()
    check_counts_were_written()
    reached = table(collect())
    uncovered_lines(sys.argv[1:])
    low = [kind for kind, lowest in LOWEST.items() if reached[kind] < lowest]
    for kind in low:
        print(f"coverage: {kind} coverage is {reached[kind]:.1f} %, the limit is {LOWEST[kind]:.0f} %")
    print(f"coverage: {reached['line']:.1f} % of the lines, {reached['branch']:.1f} % of the branches; "
          "pages in build/coverage/report/index.html")
    return 1 if low else 0


if __name__ == "__main__":
    sys.exit(main())
