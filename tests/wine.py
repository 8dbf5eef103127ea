"""How the tests start Windows programs: Wine, a prefix per build, and a persistent Wine server."""

import os
import shutil
import subprocess


def program(name="wine64"):
    """Returns the path of a program of Wine, or None; Debian installs them outside of PATH."""
    return shutil.which(name) or shutil.which(name, path="/usr/lib/wine:/usr/lib/wine64")


def command(*arguments):
    """Returns the command that starts a Windows program.

    Wine maps the page that it shares with all processes at a fixed address. In one of several thousand
    starts, the randomized heap occupies it: the program does not start, and the exit code is 1. Therefore
    randomization is disabled.
    """
    return ["setarch", "-R", program(), *map(os.fspath, arguments)]


def environment(prefix, base=None):
    return {
        **(os.environ if base is None else base),
        "WINEPREFIX": os.fspath(prefix),
        "WINEDEBUG": "-all",
        # A new prefix must not ask about optional components.
        "WINEDLLOVERRIDES": "mscoree=d;mshtml=d",
    }


class Server:
    """Wine's server for a prefix, which runs until the block is left.

    With a running server, a program starts in milliseconds instead of seconds. If another server already
    runs for the prefix, that one is used.
    """

    def __init__(self, prefix):
        self._environment = environment(prefix)
        prefix.mkdir(parents=True, exist_ok=True)

    def _start(self, *arguments):
        # Processes that stay behind must not hold their parent's pipes open.
        null = subprocess.DEVNULL
        return subprocess.Popen(
            arguments, env=self._environment, stdin=null, stdout=null, stderr=null
        )

    def __enter__(self):
        self._process = self._start(program("wineserver64") or program("wineserver"), "-f", "-p")
        # The first program initializes the prefix and starts the services for later ones.
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
