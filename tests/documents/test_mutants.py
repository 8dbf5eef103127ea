"""The list of mutants matches the sources; a changed place is reported without running the mutants."""

import subprocess
import sys

from .markdown import ROOT


def test_every_mutant_names_one_place():
    done = subprocess.run(
        [sys.executable, ROOT / "tests/mutation/run.py", "--list"],
        capture_output=True, text=True, check=False,
    )
    assert done.returncode == 0, done.stderr
    assert len(done.stdout.splitlines()) > 150
