"""A Windows machine on which packages are installed: a prefix of Wine."""

import contextlib
import re
import shutil
import subprocess
import tempfile
import time

import wine

UNINSTALL_KEY = r"HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall\KydLogUploader"
SETTINGS_KEY = r"HKLM\SOFTWARE\Veltrane\Veltrane Keyward\Corvid"
INSTALLED = r"C:\Program Files\Veltrane\KydLogUploader"


class WindowsMachine:
    def __init__(self, prefix, helper):
        self._helper = helper
        self._environment = wine.environment(prefix)
        self.drive = prefix / "drive_c"
        self.folder = self.drive / "Program Files/Veltrane/KydLogUploader"
        self.elsewhere = self.drive / "anywhere"  # where nothing should be
        self.log = self.drive / "DebugSSO/KydLogUploader.log"

    def run(self, program, *arguments):
        """Starts a program and waits for it; the low bits of the exit code, and what it printed."""
        # Not through a pipe, whose end would be that of the last process which has been left behind.
        with tempfile.TemporaryFile() as output:
            code = subprocess.run(
                wine.command(program, *arguments), env=self._environment, stdin=subprocess.DEVNULL,
                stdout=output, stderr=subprocess.STDOUT, timeout=120, check=False,
            ).returncode
            output.seek(0)
            return code, output.read().decode("utf-8", "replace")

    def code_of(self, line):
        """Runs a command line as it stands; the whole exit code."""
        code, text = self.run(self._helper, "run", line)
        assert code == 0, line
        return int(text)

    @contextlib.contextmanager
    def held(self, kind, what):
        """Holds a "name" or a "file", like a program that runs."""
        process = subprocess.Popen(
            wine.command(self._helper, kind, what), env=self._environment, stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
        )
        try:
            assert process.stdout.readline().strip() == b"ready"
            yield
        finally:
            process.communicate(timeout=60)

    def install(self, installer, further=""):
        """Without a window."""
        return self.code_of(f'"Z:{installer}" /S{further}')

    def entry(self):
        """What Add/Remove Programs shows: names to values; None without an entry."""
        code, text = self.run("reg", "query", UNINSTALL_KEY)
        if code != 0:
            return None
        return dict(re.findall(r"^    (\w+)    REG_\w+    (.*?)\r?$", text, re.M))

    def uninstall(self):
        """As Add/Remove Programs does it when nobody looks; waits until the last file has gone."""
        code = self.code_of(self.entry()["QuietUninstallString"])
        if code == 0:
            self.wait_until_gone(self.folder / "Uninstall.exe")
        return code

    @staticmethod
    def wait_until_gone(path):
        end = time.monotonic() + 60
        while path.exists():
            assert time.monotonic() < end, f"{path} is still there"
            time.sleep(0.1)

    def clean(self):
        """As if nothing of the product had ever been here."""
        shutil.rmtree(self.drive / "Program Files/Veltrane", ignore_errors=True)
        for folder in (self.log.parent, self.drive / "KydLog", self.elsewhere):
            shutil.rmtree(folder, ignore_errors=True)
        for key in (UNINSTALL_KEY, r"HKLM\SOFTWARE\Veltrane"):
            self.run("reg", "delete", key, "/f")
