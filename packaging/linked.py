"""Determines the third-party code in a program.

No list of components is needed: the linker's map names the linked objects and archive members, the line
tables in the debug information name the headers that contributed code, and dpkg knows the package of each
file. Only the licences are listed here, because Debian's copyright files name them in too many ways to be
parsed.
"""

from __future__ import annotations

import os
import platform
import re
import subprocess
from collections.abc import Iterable, Iterator
from dataclasses import dataclass
from pathlib import Path
from urllib.parse import quote

from project import MESSAGES_ARE_READ, ROOT, Failure, run

_GCC = "GPL-3.0-or-later WITH GCC-exception-3.1"
# SPDX expressions. Public-domain parts need no entry.
LICENCES = {
    "cpprest": "MIT",
    "g++-mingw-w64-x86-64-posix": _GCC,
    "gcc-mingw-w64-x86-64-posix": _GCC,
    "libboost1.74-dev": "BSL-1.0",
    "libboost1.83-dev": "BSL-1.0",
    "libboost1.88-dev": "BSL-1.0",
    "libc6": "LGPL-2.1-or-later",
    "libc6-dev": "LGPL-2.1-or-later",
    "libcli11-dev": "BSD-3-Clause",
    "libfmt-dev": "MIT",
    "libgcc-12-dev": _GCC,
    "libgcc-14-dev": _GCC,
    "libgcc-s1": _GCC,
    "libssl-dev": "Apache-2.0",
    "libssl3": "Apache-2.0",
    "libssl3t64": "Apache-2.0",
    "libstdc++-12-dev": _GCC,
    "libstdc++-14-dev": _GCC,
    "libstdc++6": _GCC,
    "libutfcpp-dev": "BSL-1.0",
    "mingw-w64-common": "ZPL-2.1",
    "mingw-w64-x86-64-dev": "ZPL-2.1 AND MIT AND BSD-3-Clause",
    "rapidjson-dev": "MIT",
}
REST_SOURCES = ROOT / "cmake/cpprestsdk"
# The path of headers that the build links to; with a compiler cache the "./" is missing.
_BUILD_HEADERS = re.compile(r"^(?:\./)?deps/include/")


@dataclass(frozen=True)
class Component:
    """A linked component: a Debian package, the REST library, or a port of vcpkg."""

    name: str
    version: str
    purl: str
    linkage: str  # "static": linked into the file; "dynamic": loaded when the program starts
    copyright: Path
    homepage: str = ""
    patches: tuple[str, ...] = ()
    spdx: str = ""  # the licence, if the component itself provides it

    @property
    def licence(self) -> str:
        if self.spdx:
            return self.spdx
        if self.name not in LICENCES:
            raise Failure(f"{self.name} is linked in: add its licence to packaging/linked.py")
        return LICENCES[self.name]


def _linked_objects(map_file: Path) -> Iterator[str]:
    """Yields objects, and archives with a linked member. The build's own objects have relative paths."""
    # The name of an archive is followed by that of the member.
    pattern = re.compile(r"(?:LOAD (/\S+\.o(?:bj)?)|(/\S+\.a)\(\S+\).*)$")
    for line in map_file.read_text("utf-8", "replace").splitlines():
        found = pattern.match(line)
        if found:
            yield found[1] or found[2]


def _sources(program: Path, objdump: str) -> Iterator[str]:
    """Yields the paths, as the compiler recorded them, of all files that contributed code."""
    directories: list[str] = []
    table = None
    entry = re.compile(r"  \d+\t(?:(\d+)\t)?(?:\(.*?\): )?(.+)$")
    command = [objdump, "--dwarf=rawline", os.fspath(program)]
    with subprocess.Popen(
        command, stdout=subprocess.PIPE, text=True, errors="replace", env=MESSAGES_ARE_READ
    ) as process:
        assert process.stdout is not None
        for line in process.stdout:
            if "Directory Table" in line:
                table, directories = "directories", []
            elif "File Name Table" in line:
                table = "files"
            elif line.startswith(" Line Number"):
                table = None
            elif table and (found := entry.match(line.rstrip("\n"))):
                if table == "directories":
                    directories.append(found[2])
                else:
                    yield os.path.join(directories[int(found[1])], found[2])
    if process.returncode != 0:
        raise Failure(f"{objdump} cannot read {program}")


def _owners(paths: Iterable[str]) -> set[str]:
    """Returns the Debian packages that own these files."""
    asked: dict[str, list[str]] = {}
    for path in {os.path.realpath(path) for path in paths}:
        # Some packages still list files below /usr by their path without /usr.
        asked[path] = [path, path.removeprefix("/usr")]
    if not asked:
        return set()
    names = sorted(name for both in asked.values() for name in both)
    answer = subprocess.run(
        ["dpkg-query", "--search", *names], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
        text=True, env=MESSAGES_ARE_READ,
        check=False,  # fails if any of the names is unknown
    ).stdout
    known = {}
    for line in answer.splitlines():
        packages, _, path = line.rpartition(": ")
        if packages.startswith("diversion by "):
            continue
        known[path] = packages.split(", ")[0].split(":")[0]
    found = set()
    for path, both in asked.items():
        owner = next((known[name] for name in both if name in known), None)
        if owner is None:
            raise Failure(f"{path} is linked in, but belongs to no package")
        found.add(owner)
    return found


def _distribution() -> str:
    """Returns the name of the build system's release for package URLs."""
    release = platform.freedesktop_os_release()
    return f"{release['ID']}-{release['VERSION_ID']}"


def debian_package(name: str, linkage: str) -> Component:
    line = run(
        "dpkg-query", "--show", "--showformat=${Version}\t${Architecture}\t${Homepage}\n", name
    ).splitlines()[0]
    version, architecture, homepage = line.split("\t")
    return Component(
        name, version,
        f"pkg:deb/debian/{quote(name)}@{quote(version)}?arch={architecture}&distro={_distribution()}", linkage,
        Path("/usr/share/doc") / name / "copyright", homepage,
    )


def rest_patches() -> tuple[str, ...]:
    return tuple(path.name for path in sorted(REST_SOURCES.glob("[0-9]*.patch")))


def rest_library(build: Path) -> Component:
    """The patched library: tarball of Debian's source package, version from the library's header."""
    cache = (build / "CMakeCache.txt").read_text("utf-8")
    flavour = re.search(r"^KYD_CPPREST_FLAVOUR:\w+=([\w-]+)$", cache, re.M)
    if flavour is None:
        raise Failure("the build does not name the source of the REST library")
    prefix = Path(run(REST_SOURCES / "build", flavour[1]).splitlines()[-1])
    header = (prefix / "include/cpprest/version.h").read_text("utf-8")
    numbers = [
        re.search(rf"define CPPREST_VERSION_{part} (\d+)", header) for part in ("MAJOR", "MINOR", "REVISION")
    ]
    version = ".".join(number[1] for number in numbers if number)
    return Component(
        "cpprest", version, f"pkg:deb/debian/cpprest@{version}?arch=source", "static",
        prefix / "share/cpprestsdk/license.txt", "https://github.com/microsoft/cpprestsdk",
        rest_patches(),
    )


def _needed(program: Path) -> Iterator[str]:
    """Yields the shared libraries that the loader finds on this machine, except the product family's."""
    cache = dict(re.findall(r"^\s+(\S+) \(.*x86-64.*\) => (\S+)$", run("/sbin/ldconfig", "-p"), re.M))
    for name in re.findall(r"\(NEEDED\).*\[(.*)\]", run("readelf", "--wide", "--dynamic", program)):
        if name in cache:
            yield cache[name]
        elif name != "libpelham.so":
            raise Failure(f"{program.name} needs {name}, which this machine does not have")


def components(build: Path, targets: Iterable[str]) -> list[Component]:
    """Returns the components of a build's programs and libraries, given by target, sorted by name."""
    windows = (build / "bin/KydLogUploader.exe").exists()
    objdump = "x86_64-w64-mingw32-objdump" if windows else "objdump"
    used: set[str] = set()
    shared: set[str] = set()
    rest = False
    for target in targets:
        (program,) = (path for path in (build / "bin").iterdir() if path.stem.removeprefix("lib") == target)
        objects = set(_linked_objects(build / "maps" / f"{target}.map"))
        if not objects:
            raise Failure(f"the linker's map of {target} lists no objects")
        rest = rest or any(path.endswith("/libcpprest.a") for path in objects)
        used |= {path for path in objects if not path.endswith("/libcpprest.a")}
        for source in _sources(program, objdump):
            source = _BUILD_HEADERS.sub("/usr/include/", source)
            # Sources of the packages themselves do not exist here; the map already lists their objects.
            if source.startswith("/") and os.path.exists(source):
                used.add(source)
        if not windows:
            shared |= set(_needed(program))
    found = [debian_package(name, "static") for name in _owners(used)]
    found += [debian_package(name, "dynamic") for name in _owners(shared)]
    if rest:
        found.append(rest_library(build))
    return sorted(found, key=lambda component: component.name)


def write_licences(inside: Iterable[Component], folder: Path) -> list[Path]:
    """Writes the copyright file of each component. Returns the common licences that they refer to, which are
    part of every Debian system."""
    folder.mkdir(parents=True, exist_ok=True)
    common: set[Path] = set()
    for component in inside:
        text = component.copyright.read_text("utf-8", "replace")
        (folder / f"{component.name}.txt").write_text(text, "utf-8")
        named = re.findall(r"(/usr/share/common-licenses/[\w.+-]*\w)", text)
        common |= {Path(name).resolve() for name in named if os.path.exists(name)}
    return sorted(common)
