"""The packages in dist/, as their users see them."""

import platform
import re
import subprocess
import sys
import zipfile
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests"), str(ROOT / "packaging")]

import wine  # noqa: E402  of tests/

from .windows_machine import WindowsMachine  # noqa: E402

RELEASE = platform.freedesktop_os_release()["VERSION_ID"]
# Differences between Debian releases: package names, and where debhelper installs units.
GCC, SSL, UNITS = {
    "12": ("12", "libssl3", "lib/systemd/system"),
    "13": ("14", "libssl3t64", "usr/lib/systemd/system"),
}[RELEASE]
WINDOWS_BUILD = ROOT / "build/release-windows"


def tool(*command, **options):
    """Runs a tool, which must succeed; returns its output."""
    options = {"check": True, "capture_output": True, "text": True, "timeout": 120, **options}
    return subprocess.run([str(word) for word in command], **options).stdout


# A release can have several, of which one is installed.
BOOST = tool("dpkg", "--search", "/usr/include/boost/version.hpp").partition(":")[0]


def pytest_addoption(parser):
    parser.addoption("--dist", type=Path, default=ROOT / "dist", help="the folder of the packages")


@pytest.fixture(scope="session")
def dist(request):
    folder = request.config.getoption("--dist").resolve()
    if not (folder / "SHA256SUMS").exists():
        pytest.exit(f"no packages in {folder}: run './dev package'", 2)
    return folder


@pytest.fixture(scope="session")
def version():
    """The version from its only definition, the build file."""
    text = (ROOT / "CMakeLists.txt").read_text("utf-8")
    return re.search(r"project\(KydLogUploader VERSION (\d+\.\d+\.\d+)", text)[1]


class Archives:
    """The ZIPs, unpacked on demand."""

    def __init__(self, dist, version, folder):
        self._dist, self._version, self._folder = dist, version, folder

    def path(self, kind):
        return self._dist / f"KydLogUploader-{self._version}-{kind}.zip"

    def unpacked(self, kind):
        path = self.path(kind)
        if not (self._folder / path.stem).exists():
            with zipfile.ZipFile(path) as archive:
                archive.extractall(self._folder)
        return self._folder / path.stem

    @property
    def product(self):
        return self.unpacked("windows-x64-mingw")

    @property
    def symbols(self):
        return self.unpacked("windows-x64-mingw-symbols")

    @property
    def companion(self):
        return self.unpacked("companion-development-windows-x64-mingw")


@pytest.fixture(scope="session")
def archives(dist, version, tmp_path_factory):
    return Archives(dist, version, tmp_path_factory.mktemp("archives"))


def debian_version(version):
    """The version of the Debian package for this machine's release."""
    return f"{version}-1+deb{RELEASE}"


@pytest.fixture(scope="session")
def debian_package(dist, version):
    return dist / f"kydloguploader_{debian_version(version)}_amd64.deb"


@pytest.fixture(scope="session")
def debian_files(debian_package, tmp_path_factory):
    """A folder with the content of the Debian package."""
    folder = tmp_path_factory.mktemp("debian-package")
    tool("dpkg-deb", "--extract", debian_package, folder)
    return folder


@pytest.fixture(scope="session")
def helper(tmp_path_factory):
    program = tmp_path_factory.mktemp("helper") / "helper.exe"
    source = Path(__file__).with_name("helper.cpp")
    tool("x86_64-w64-mingw32-g++-posix", "-municode", "-static", source, "-o", program)
    return program


@pytest.fixture(scope="session")
def windows(helper):
    if wine.program() is None:
        pytest.skip("Wine is not installed")
    prefix = WINDOWS_BUILD / "wineprefix"
    with wine.Server(prefix):
        yield WindowsMachine(prefix, helper)


def files_below(folder):
    return {path.relative_to(folder).as_posix() for path in folder.rglob("*") if not path.is_dir()}
