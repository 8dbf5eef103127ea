"""Undefined and unused names in Python files, some of which are run only by hand."""

import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def test_python_files_have_no_undefined_or_unused_names():
    listed = subprocess.run(
        ["git", "ls-files", "-z", "*.py"], cwd=ROOT, stdout=subprocess.PIPE, check=True
    )
    files = listed.stdout.decode("utf-8").rstrip("\0").split("\0")
    assert "tests/run.py" in files
    checked = subprocess.run(
        [sys.executable, "-m", "pyflakes", *files], cwd=ROOT, capture_output=True, text=True, check=False
    )
    assert (checked.returncode, checked.stdout + checked.stderr) == (0, "")
