"""A Windows machine for installing packages: a Wine prefix."""

import contextlib
import re
import shutil
import subprocess
import tempfile

import wine

UNINSTALL_KEY = r"HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall"
SETTINGS_KEY = r"HKLM\SOFTWARE\Veltrane\Veltrane Keyward\Corvid"
INSTALLED = r"C:\Program Files\Veltrane\KydLogUploader"


def _decoded(log):
    """Windows Installer logs in UTF-16, Wine in a code page."""
    return log.decode("utf-16" if log.startswith(b"\xff\xfe") else "cp1252", "replace")


def changed(package, tmp_path, *statements):
    """Returns a copy of the package with modified tables."""
    copy = tmp_path / f"changed-{package.name}"
    shutil.copyfile(package, copy)
    for statement in statements:
        subprocess.run(["msibuild", copy, "-q", statement], check=True, capture_output=True)
    return copy


def that_replaces_under_wine(package, tmp_path):
    """Returns a copy of the package that tells the replaced version about the replacement. Wine does not do so
    itself, but passes the list of features to remove on a command line."""
    return changed(package, tmp_path, "UPDATE `Upgrade` SET `Remove` = 'ALL UPGRADINGPRODUCTCODE=[ProductCode]'"
                   " WHERE `ActionProperty` = 'OLDER'")


class WindowsMachine:
    def __init__(self, prefix, helper):
        self._helper = helper
        self._environment = wine.environment(prefix)
        self.drive = prefix / "drive_c"
        self.folder = self.drive / "Program Files/Veltrane/KydLogUploader"
        self.elsewhere = self.drive / "anywhere"  # where nothing may be installed
        self._task = self.drive / "windows/system32/tasks/Veltrane/KydLogUploader"
        self.log = self.drive / "DebugSSO/KydLogUploader.log"

    def run(self, program, *arguments):
        """Runs a program; returns the low bits of its exit code, and its output."""
        # Not through a pipe, which stays open until the last leftover process ends.
        with tempfile.TemporaryFile() as output:
            code = subprocess.run(
                wine.command(program, *arguments), env=self._environment, stdin=subprocess.DEVNULL,
                stdout=output, stderr=subprocess.STDOUT, timeout=120, check=False,
            ).returncode
            output.seek(0)
            return code, output.read().decode("utf-8", "replace")

    def code_of(self, line):
        """Runs an unmodified command line; returns the whole exit code."""
        code, text = self.run(self._helper, "run", line)
        assert code == 0, line
        return int(text)

    @contextlib.contextmanager
    def held(self, kind, what):
        """Holds a "name" or a "file", like a running program."""
        process = subprocess.Popen(
            wine.command(self._helper, kind, what), env=self._environment, stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
        )
        try:
            assert process.stdout.readline().strip() == b"ready"
            yield
        finally:
            process.communicate(timeout=60)

    def msiexec(self, how, package, *properties):
        """Runs msiexec without a window; returns its exit code and log."""
        log = self.drive / "msi.log"
        log.unlink(missing_ok=True)
        line = f'msiexec {how} "Z:{package}" /qn /l*v C:\\msi.log {" ".join(properties)}'
        code = self.code_of(line)
        text = _decoded(log.read_bytes()) if log.exists() else ""
        return code, text

    def install(self, package, *properties):
        return self.msiexec("/i", package, *properties)[0]

    def uninstall(self, package):
        return self.msiexec("/x", package)[0]

    def entries(self):
        """Returns the product's entries in Add/Remove Programs: names to values, one per package."""
        _, text = self.run("reg", "query", UNINSTALL_KEY, "/s")
        found = []
        for section in re.split(r"\r?\n(?=HKEY)", text):
            values = dict(re.findall(r"^    (\w+)    REG_\w+    (.*?)\r?$", section, re.M))
            if values.get("DisplayName") == "KydLogUploader":
                found.append(values)
        return found

    @property
    def task(self):
        """Returns the scheduled task's definition, or None."""
        return self._task.read_bytes() if self._task.exists() else None

    @task.setter
    def task(self, definition):
        self._task.parent.mkdir(parents=True, exist_ok=True)
        self._task.write_bytes(definition)

    @contextlib.contextmanager
    def own_schtasks(self):
        """Replaces schtasks by a program that records its command lines, keeps definitions unchanged, and
        can be made to fail."""
        system = self.drive / "windows/system32/schtasks.exe"
        kept = system.with_suffix(".kept")
        folder = self.drive / "schtasks"
        folder.mkdir()
        system.rename(kept)
        shutil.copyfile(self._helper, system)
        overrides = self._environment["WINEDLLOVERRIDES"]
        self._environment["WINEDLLOVERRIDES"] = f"{overrides};schtasks.exe=n"
        try:
            yield folder
        finally:
            self._environment["WINEDLLOVERRIDES"] = overrides
            kept.replace(system)
            shutil.rmtree(folder)

    def clean(self):
        """Removes all traces of the product."""
        for entry in self.entries():
            self.code_of(f'{entry["UninstallString"]} /qn')
        shutil.rmtree(self.drive / "Program Files/Veltrane", ignore_errors=True)
        self._task.unlink(missing_ok=True)
        for folder in (self.log.parent, self.drive / "KydLog", self.elsewhere):
            shutil.rmtree(folder, ignore_errors=True)
        self.run("reg", "delete", r"HKLM\SOFTWARE\Veltrane", "/f")
