"""How the tests start Windows programs: Wine, a prefix of the build, and a server that stays."""

import os
import shutil
import subprocess


def program(name="wine64"):
    """Where a program of Wine lies, or None; Debian puts them outside of PATH."""
    return shutil.which(name) or shutil.which(name, path="/usr/lib/wine:/usr/lib/wine64")


def command(*arguments):
    """The command that starts a Windows program.

    Wine places the page that it shares with all processes at a fixed address, and in one of some
    thousand starts the randomized heap lies there: the program then never starts, and the code is
    1. So nothing is randomized.
    """
    return ["setarch", "-R", program(), *map(os.fspath, arguments)]


def environment(prefix, base=None):
    return {
        **(os.environ if base is None else base),
        "WINEPREFIX": os.fspath(prefix),
        "WINEDEBUG": "-all",
        # No questions about optional components when the prefix is new.
        "WINEDLLOVERRIDES": "mscoree=d;mshtml=d",
    }


class Server:
    """Wine's server for a prefix, which stays until the block is left.

    That makes a start take milliseconds instead of seconds. When there is one already, somebody
    else's, that one serves.
    """

    def __init__(self, prefix):
        self._environment = environment(prefix)
        prefix.mkdir(parents=True, exist_ok=True)

    def _start(self, *arguments):
        # Nothing that stays behind may hold a pipe of its starter open.
        null = subprocess.DEVNULL
        return subprocess.Popen(
            arguments, env=self._environment, stdin=null, stdout=null, stderr=null
        )

    def __enter__(self):
        self._process = self._start(program("wineserver64") or program("wineserver"), "-f", "-p")
        # The first program in the prefix sets it up, and starts what serves the later ones.
        if self._start(*command("wineboot", "-u")).wait(300) != 0:
            raise RuntimeError("wineboot failed")
        return self

    def __exit__(self, *_):
        if self._process.poll() is None:
            self._process.terminate()
            try:
                self._process.wait(20)
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait()
