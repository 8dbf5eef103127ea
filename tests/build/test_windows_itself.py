"""pytest can collect the tests on Windows itself, where Python lacks some of its modules."""

import os
import subprocess
import sys

import pytest

from .conftest import ROOT

# As on Windows. Python's own modules do without them, and may already have imported them.
WITHOUT = """
import sys
for name in ("fcntl", "grp", "pty", "pwd", "resource", "syslog", "termios", "tty"):
    sys.modules[name] = None
"""


@pytest.mark.parametrize("arguments", [
    ["tests/e2e", "--platform=msvc"],
    ["cmake/cpprestsdk/tests", "--probe=probe.exe"],
])
def test_tests_are_collected_without_modules_that_windows_lacks(tmp_path, arguments):
    (tmp_path / "like_windows.py").write_text(WITHOUT, "ascii")
    command = [sys.executable, "-m", "pytest", "-p", "like_windows", "-p", "no:cacheprovider", "-q", "--collect-only"]
    done = subprocess.run(
        [*command, *arguments], cwd=ROOT, env={**os.environ, "PYTHONPATH": os.fspath(tmp_path)},
        stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120, check=False,
    )
    assert done.returncode == 0, done.stdout
    assert "error" not in done.stdout.splitlines()[-1]
