"""Runs the project's scripts with stand-ins for the tools that they call."""

import os
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]


class Machine:
    """A machine with replaceable tools and an empty cache."""

    def __init__(self, folder):
        self.tools = folder / "tools"
        self.cache = folder / "cache"
        self.tools.mkdir()

    def tool(self, name, script):
        path = self.tools / name
        path.write_text(f"#!/bin/bash\n{script}\n", "utf-8")
        path.chmod(0o755)

    def run(self, *command, only_these_tools=False, **variables):
        path = os.fspath(self.tools)
        if not only_these_tools:
            path += os.pathsep + os.environ["PATH"]
        environment = {**os.environ, "PATH": path, "KYD_CACHE": os.fspath(self.cache), **variables}
        return subprocess.run(
            ["/bin/bash", *map(os.fspath, command)], env=environment, cwd=ROOT, stdin=subprocess.DEVNULL,
            capture_output=True, text=True, timeout=120, check=False,
        )


@pytest.fixture
def a_machine(tmp_path):
    return Machine(tmp_path)
