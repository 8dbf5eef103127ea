"""Debian machines for installing packages: minimal roots with their own systemd."""

import os
import shutil
import subprocess
import time
from pathlib import Path

RELEASES = ("bookworm", "trixie")
# systemd and the package's dependencies, so that dpkg can install it without a network. The library's name
# changed with the size of time_t.
PACKAGES = {
    "bookworm": "systemd,libssl3,libstdc++6,ca-certificates",
    "trixie": "systemd,libssl3t64,libstdc++6,ca-certificates",
}
MIRROR = "http://deb.debian.org/debian"
BOOT = Path(__file__).with_name("debian_boot")
# Units that need a console or change what the machine shares with its host.
MASKED = ("console-getty.service", "getty@.service", "apt-daily.timer", "apt-daily-upgrade.timer",
          "systemd-sysctl.service", "systemd-timesyncd.service", "systemd-hwdb-update.service")


def bare_root(release):
    """Returns a root made by debootstrap, which is cached."""
    cache = os.environ.get("KYD_CACHE") or Path(
        os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache", "kydloguploader"
    )
    root = Path(cache) / "debian-roots" / release
    if not root.exists():
        unfinished = root.with_suffix(".unfinished")
        shutil.rmtree(unfinished, ignore_errors=True)
        unfinished.parent.mkdir(parents=True, exist_ok=True)
        subprocess.run(
            ["debootstrap", "--variant=minbase", f"--include={PACKAGES[release]}", release, unfinished,
             MIRROR],
            check=True, stdout=subprocess.DEVNULL, timeout=1800,
        )
        for unit in MASKED:
            (unfinished / "etc/systemd/system" / unit).symlink_to("/dev/null")
        (unfinished / "etc/hosts").write_text("127.0.0.1 localhost\n", "ascii")
        unfinished.rename(root)
    return root


class DebianMachine:
    """A context manager; the machine runs within the block."""

    def __init__(self, root, changes):
        self.changes = changes
        self._process = subprocess.Popen(
            [BOOT, root, changes], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=open(changes / "boot.log", "wb"),
        )

    def __enter__(self):
        end = time.monotonic() + 120
        while not self._is_up():
            log = (self.changes / "boot.log").read_text("utf-8")
            if self._process.poll() is not None or time.monotonic() > end:
                self.__exit__()
                raise RuntimeError(f"the machine does not start: {log}")
            time.sleep(0.2)
        return self

    def __exit__(self, *_):
        # SIGKILL, because process 1 of a namespace ignores all other signals.
        self._process.kill()
        self._process.wait()
        group = Path((self.changes / "cgroup").read_text("ascii").strip())
        end = time.monotonic() + 30
        while any(path.read_text("ascii") for path in group.rglob("cgroup.procs")):
            assert time.monotonic() < end, f"processes are left in {group}"
            time.sleep(0.1)
        for folder in sorted((path for path in group.rglob("*") if path.is_dir()), reverse=True):
            folder.rmdir()
        group.rmdir()

    @property
    def _init(self):
        """Returns the host's pid of the machine's process 1."""
        children = Path(f"/proc/{self._process.pid}/task/{self._process.pid}/children")
        return children.read_text("ascii").strip()

    def _is_up(self):
        try:
            return self.run("systemctl", "is-system-running").stdout.strip() in ("running", "degraded")
        except OSError:
            return False

    def path(self, name):
        """Returns the host's path of a file on the machine."""
        return Path(f"/proc/{self._init}/root") / name.lstrip("/")

    def run(self, *command):
        return subprocess.run(
            ["nsenter", f"--target={self._init}", "--mount", "--pid", "--uts", "--ipc", "--cgroup",
             "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8",
             "DEBIAN_FRONTEND=noninteractive", *map(str, command)],
            check=False, capture_output=True, text=True, errors="replace", stdin=subprocess.DEVNULL,
            timeout=120,
        )

    def do(self, *command):
        """Runs a command, which must succeed; returns its output."""
        done = self.run(*command)
        if done.returncode != 0:
            journal = self.run("journalctl", "--no-pager", "--output=cat", "--lines=20").stdout
            raise AssertionError(f"{command}: {done.stdout}{done.stderr}\n{journal}")
        return done.stdout + done.stderr

    def install(self, package):
        shutil.copyfile(package, self.path("/root/new.deb"))
        try:
            # Keep settings that an administrator has edited, without asking.
            return self.do("dpkg", "--force-confold", "--install", "/root/new.deb")
        finally:
            self.path("/root/new.deb").unlink()

    def unit(self, name):
        """Returns the properties of a unit."""
        return dict(line.split("=", 1) for line in self.do("systemctl", "show", name).splitlines())

    def journal(self, unit):
        self.do("journalctl", "--sync")
        return self.do("journalctl", "--no-pager", "--output=cat", f"--unit={unit}")

    def files(self):
        """Returns all files except those in which the system itself records events."""
        system = ("proc/", "sys/", "dev/", "run/", "tmp/", "var/lib/dpkg/", "var/log/journal/", "var/log/dpkg.log",
                  "var/lib/systemd/", "var/cache/", "var/tmp/", "root/")
        listed = self.do("find", "/", "-xdev", "!", "-type", "d", "-printf", "%P\\n").splitlines()
        return {name for name in listed if not name.startswith(system)}
