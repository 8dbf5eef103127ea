"""Windows programs with Visual C++'s binary interface, which were built elsewhere.

Their folder contains the programs, their symbols (.pdb) and `share`, a copy of
vcpkg_installed/<triplet>/share, where vcpkg keeps the version and the licence of each library.
"""

from __future__ import annotations

import json
import re
from collections.abc import Iterable
from pathlib import Path
from urllib.parse import quote

import project
from linked import Component, rest_patches
from project import Failure

# Ports that are only used to build or test the programs.
_NOT_LINKED = re.compile(r"vcpkg-.*|gtest|boost-(?:cmake|uninstall|headers)")
_REST_LIBRARY = "cpprestsdk"
_RUN_TIME = "vcruntime140.dll"
# The C run-time of a stand-in SDK: the real SDK's libraries import api-ms-win-crt-*.dll instead.
_OF_A_STAND_IN = "ucrtbase.dll"


def _imports(program: Path) -> set[str]:
    """Returns the imported libraries of a program for x86-64 Windows, in lower case."""
    try:
        listed = project.run("x86_64-w64-mingw32-objdump", "--private-headers", program)
    except Failure:
        listed = ""
    if "file format pei-x86-64" not in listed:
        raise Failure(f"{program} is not a program for x86-64 Windows")
    return {name.lower() for name in re.findall(r"DLL Name: (\S+)", listed)}


def _product_version(program: Path) -> str:
    """Returns the text in the version resource; empty if there is none."""
    key = re.escape("ProductVersion\0".encode("utf-16-le"))
    found = re.search(key + rb"(?:\0\0)*((?:[ -~]\0)+)\0\0", program.read_bytes())
    return found[1].decode("utf-16-le") if found else ""


def check(folder: Path, programs: Iterable[str], *, stand_in_allowed: bool) -> None:
    """Fails if one of the programs must not be packaged; the message names the program and the reason."""
    for name in programs:
        program = folder / name
        for file in (program, program.with_suffix(".pdb")):
            if not file.is_file():
                raise Failure(f"{file} is missing")
        imports = _imports(program)
        if _RUN_TIME not in imports:
            raise Failure(f"{program} is not in Visual C++'s binary interface: it does not need {_RUN_TIME}")
        if _OF_A_STAND_IN in imports and not stand_in_allowed:
            raise Failure(f"{program} was built with a stand-in for the Windows SDK, which is only for tests")
        expected, found = f"{project.version()} (msvc)", _product_version(program)
        if found != expected:
            raise Failure(f"{program} has version {found or 'unknown'}, not {expected}")
    components(folder)


def components(folder: Path) -> list[Component]:
    """Returns the libraries that vcpkg installed for the programs, sorted by name."""
    found = []
    for bill in sorted((folder / "share").glob("*/vcpkg.spdx.json")):
        if not _NOT_LINKED.fullmatch(bill.parent.name):
            found.append(_component(bill))
    if not found:
        raise Failure(f"{folder / 'share'} has no */vcpkg.spdx.json, so nothing says what is linked in")
    return found


def _component(bill: Path) -> Component:
    try:
        content = json.loads(bill.read_text("utf-8"))
        (port,) = (package for package in content["packages"] if package["SPDXID"] == "SPDXRef-port")
        name, version, licence = port["name"], port["versionInfo"], port["licenseConcluded"]
        files = [Path(file["fileName"]) for file in content["files"]]
    except (ValueError, KeyError, TypeError):
        raise Failure(f"{bill} is not what vcpkg writes") from None
    if licence == "NOASSERTION":
        raise Failure(f"{bill} names no licence")
    text = bill.with_name("copyright")
    if not text.is_file():
        raise Failure(f"{text} is missing")
    patches: tuple[str, ...] = ()
    if name == _REST_LIBRARY:
        patches = tuple(sorted(file.name for file in files if file.suffix == ".patch"))
        if patches != rest_patches():
            raise Failure(f"{bill}: the REST library was not built with the patches of cmake/cpprestsdk")
    return Component(
        name, version, f"pkg:generic/{quote(name)}@{quote(version, safe='')}", "static", text,
        port.get("homepage", ""), patches, licence,
    )
