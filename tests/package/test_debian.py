"""The Debian package: checked by lintian, installed into a separate root, run, removed."""

import os
import re
import shutil
import subprocess

import pytest

from .conftest import RELEASE, ROOT, SSL, UNITS, debian_version, files_below, tool

NATIVE_BUILD = ROOT / "build/release-linux/bin"
PROGRAM = "usr/sbin/KydLogUploader"


def as_root():
    """Returns the prefix for commands that need root; None if root is not available."""
    if os.geteuid() == 0:
        return []
    sudo = ["sudo", "--non-interactive"]
    if shutil.which("sudo") and subprocess.run([*sudo, "true"], check=False).returncode == 0:
        return sudo
    return None


class System:
    """A root folder for dpkg, with this machine's list of installed packages."""

    def __init__(self, folder):
        self.folder = folder
        database = folder / "var/lib/dpkg"
        for name in ("info", "updates", "triggers"):
            (database / name).mkdir(parents=True)
        shutil.copyfile("/var/lib/dpkg/status", database / "status")

    def dpkg(self, *arguments):
        return tool(
            *as_root(), "dpkg", f"--root={self.folder}", "--log=/dev/null",
            # The test machine may be configured to exclude documents.
            "--path-include=*", "--force-script-chrootless", *arguments,
        )

    def files(self):
        return {name for name in files_below(self.folder) if not name.startswith("var/lib/dpkg/")}

    def run(self, name, *arguments):
        return subprocess.run(
            [self.folder / name, *arguments], check=False, capture_output=True, text=True, timeout=60,
            env={"PATH": "/usr/bin:/bin", "KEYWARD_SYSROOT": str(self.folder / "sysroot")},
        )


@pytest.fixture
def system(tmp_path):
    if as_root() is None:
        pytest.skip("dpkg needs root, and sudo is not available")
    return System(tmp_path / "system")


@pytest.fixture
def installed(system, debian_package):
    system.dpkg("--install", debian_package)
    return system


def add_closed_libraries(system):
    for name in ("Corvid.so", "libpelham.so"):
        tool(*as_root(), "cp", NATIVE_BUILD / name, system.folder / "usr/lib/kydloguploader")


def test_lintian_finds_nothing(dist, version, debian_package):
    packages = [debian_package, dist / f"kydloguploader-dbgsym_{debian_version(version)}_amd64.deb"]
    done = subprocess.run(
        ["lintian", "--allow-root", "--fail-on=error,warning", "--display-info", *packages],
        check=False, capture_output=True, text=True,
    )
    found = done.stdout.splitlines()
    if RELEASE == "13":
        # Only for the status tool: the same flags give the uploader checked calls, but the tool has no call that the
        # compiler can and needs to check.
        found.remove("I: kydloguploader: hardening-no-fortify-functions [usr/lib/kydloguploader/KydUploadStatus]")
    assert (done.returncode, found) == (0, [])


def test_package_describes_itself(debian_package, version):
    fields = dict(
        line.split(": ", 1)
        for line in tool("dpkg-deb", "--field", debian_package, "Package", "Version", "Architecture",
                         "Maintainer", "Depends").splitlines()
    )
    depends = {entry.split(" ")[0] for entry in fields.pop("Depends").split(", ")}
    assert depends == {"libc6", "libgcc-s1", SSL, "libstdc++6"}
    assert fields == {
        "Package": "kydloguploader",
        "Version": debian_version(version),
        "Architecture": "amd64",
        "Maintainer": "The KydLogUploader authors <kydloguploader@example.invalid>",
    }


def test_installs_the_content_of_the_package(installed, debian_files):
    assert files_below(debian_files) <= installed.files()
    status = installed.dpkg("--status", "kydloguploader")
    assert "Status: install ok installed" in status


def test_installed_programs_run(installed, version, tmp_path):
    add_closed_libraries(installed)
    settings = installed.folder / "sysroot/etc/keyward/registry.reg"
    settings.parent.mkdir(parents=True)
    examples = installed.folder / "usr/share/doc/kydloguploader/examples"
    shutil.copyfile(examples / "on.reg", settings)
    (installed.folder / "sysroot/run/lock").mkdir(parents=True)
    (installed.folder / "sysroot/var/log").mkdir(parents=True)
    done = installed.run(PROGRAM, "tenant.example.com", tmp_path)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    log = (installed.folder / "sysroot/var/log/DebugSSO/KydLogUploader.log").read_text("utf-8-sig")
    assert f"*** EXECUTE LOGUPLOAD *** Tenant [tenant.example.com] LogDir [{tmp_path}]" in log
    # The library is searched next to the program, not next to the link to it.
    assert "DLL Load Error" not in log

    status = installed.run("usr/bin/KydUploadStatus", "--version")
    assert (status.returncode, version in status.stdout) == (0, True)


def test_program_does_not_start_without_the_closed_libraries(installed, tmp_path):
    done = installed.run(PROGRAM, "tenant.example.com", tmp_path)
    assert done.returncode == 127
    assert "libpelham.so" in done.stderr


def test_units_start_the_installed_programs(debian_files):
    unit = (debian_files / UNITS / "kydloguploader.service").read_text("utf-8")
    lines = [line for line in unit.splitlines() if line.startswith("Exec")]
    programs = [line.partition("=/")[2].split(" ")[0] for line in lines]
    assert len(programs) == 2
    assert all((debian_files / program).exists() for program in programs)


@pytest.mark.parametrize("page", ["man8/KydLogUploader.8", "man1/KydUploadStatus.1"])
def test_manual_pages_name_existing_files(debian_files, page):
    path = debian_files / f"usr/share/man/{page}.gz"
    source = subprocess.run(["zcat", path], check=True, capture_output=True, text=True).stdout
    for line in source.splitlines():
        if "/usr/" in line:
            name = line.split("/usr/", 1)[1].split(" ")[0]
            # The administrator adds the two closed libraries later.
            assert (debian_files / "usr" / name).exists() or name.endswith((".so")), line


def test_manual_page_has_the_options_of_the_status_tool(debian_files):
    path = debian_files / "usr/share/man/man1/KydUploadStatus.1.gz"
    page = subprocess.run(["zcat", path], check=True, capture_output=True, text=True).stdout
    text = tool(debian_files / "usr/bin/KydUploadStatus", "--help")
    options = set(re.findall(r"--[a-z-]+", text))
    assert options >= {"--help", "--version", "--days", "--json", "--html"}
    for option in options:
        assert option in page.replace("\\-", "-"), option
