"""The Windows Installer package, by wixl."""

from __future__ import annotations

import os
import re
import struct
import uuid
from collections.abc import Callable, Sequence
from pathlib import Path
from xml.sax.saxutils import quoteattr

import project
from project import NAME, PUBLISHER, ROOT, WORK, Failure

# Never change: by it an installed version is found, whichever binary interface it has.
UPGRADE_CODE = "B5C34B57-4C3E-4D6E-9F0C-0E9C3D5A7F21"
# What all other identities are derived from.
_NAMESPACE = uuid.UUID("5d6d1f0b-8a0e-4c3c-9d51-6a5a3f1c2e74")
SOURCE = ROOT / "packaging/windows/package.wxs"
SECURE_PROPERTIES = ("TENANT", "LOGDIR")
# Attributes of the table Upgrade: the version itself belongs to the range.
_FROM_MINIMUM, _TO_MAXIMUM = 256, 512
_ON_REMOVAL = 2  # of the table RemoveFile
_ON_ROLLBACK = 256 + 1024  # of the table CustomAction

_SUMMARY_FORMAT = bytes.fromhex("e0859ff2f94f6810ab9108002b27b3d9")
_PACKAGE_CODE, _CREATED, _SAVED = 9, 12, 13
_TEXT, _TIME = 30, 64


def identity(*words: str) -> str:
    return str(uuid.uuid5(_NAMESPACE, "/".join(words))).upper()


def _name(prefix: str, path: Path) -> str:
    """The name of a row of the tables, which has fewer characters than a path."""
    return prefix + re.sub(r"[^A-Za-z0-9.]", "_", path.as_posix())


def _short(number: int, name: str) -> str:
    """The table wants a name of eight and three characters in front of each longer one."""
    suffix = Path(name).suffix[1:4].upper()
    return f"KYD{number:05X}{'.' if suffix else ''}{suffix}|{name}"


def _source(path: Path) -> str:
    """wixl takes relative paths only; it is run in the root folder."""
    return os.fspath(path.relative_to("/"))


def _contents(folder: Path) -> tuple[str, str]:
    """The directories with a component for each file, and the references to these components."""
    files = project.files_below(folder)
    if len({_name("", file).lower() for file in files}) != len(files):
        raise Failure("two files of the Windows package get the same name in its tables")
    numbers = {path: number for number, path in enumerate(
        sorted({*files, *(parent for file in files for parent in file.parents)}), 1)}
    references = []

    def directory(at: Path) -> str:
        text = ""
        for file in files:
            if file.parent != at:
                continue
            component = _name("c_", file)
            references.append(f"<ComponentRef Id={quoteattr(component)}/>")
            text += (
                # The same path is the same component in every version.
                f"<Component Id={quoteattr(component)} Win64='yes' Guid={quoteattr(identity('component', file.as_posix()))}>"
                f"<File Id={quoteattr(_name('f_', file))} KeyPath='yes'"
                f" Name={quoteattr(_short(numbers[file], file.name))}"
                f" Source={quoteattr(_source(folder / file))}/></Component>\n"
            )
        for child in sorted({path for path in numbers if path.parent == at and path != at and path not in files}):
            text += (
                f"<Directory Id={quoteattr(_name('d_', child))}"
                f" Name={quoteattr(_short(numbers[child], child.name))}>\n{directory(child)}</Directory>\n"
            )
        return text

    return directory(Path(".")), "\n".join(references)


def _settle_summary(path: Path, code: str, time: int) -> None:
    """Gives the package its code and time, where wixl writes a random one and the present one."""
    content = bytearray(path.read_bytes())
    found = content.find(_SUMMARY_FORMAT)
    if found < 0 or content.find(_SUMMARY_FORMAT, found + 1) >= 0:
        raise Failure(f"{path} has not one summary")
    # The stream's head is 28 bytes up to the format's name, then comes the section's offset in the stream.
    section = found - 28 + struct.unpack_from("<I", content, found + 16)[0]
    # Hundreds of nanoseconds since 1601.
    file_time = (time + 11_644_473_600) * 10_000_000
    wanted = {
        _PACKAGE_CODE: (_TEXT, struct.pack("<I", 39) + f"{{{code}}}\0".encode("ascii")),
        _CREATED: (_TIME, struct.pack("<Q", file_time)),
        _SAVED: (_TIME, struct.pack("<Q", file_time)),
    }
    for index in range(struct.unpack_from("<I", content, section + 4)[0]):
        number, offset = struct.unpack_from("<II", content, section + 8 + 8 * index)
        if number in wanted:
            kind, value = wanted.pop(number)
            place = section + offset
            if struct.unpack_from("<I", content, place)[0] != kind:
                raise Failure(f"{path}: property {number} of the summary is of another type")
            content[place + 4:place + 4 + len(value)] = value
    if wanted:
        raise Failure(f"{path}: the summary has no property {sorted(wanted)}")
    path.write_bytes(content)


Row = dict[str, str]


def _edit(path: Path, table: str, change: Callable[[Row], Row | None], *more: Row) -> None:
    """Replaces, removes and adds rows of a table, for what wixl has no words."""
    text = project.run("msiinfo", "export", path, table)
    head, rows = text.splitlines()[:3], text.splitlines()[3:]
    columns = head[0].split("\t")
    changed = [*(change(dict(zip(columns, row.split("\t")))) for row in rows), *more]
    file = WORK / f"{table}.idt"
    lines = [*head, *("\t".join(row[column] for column in columns) for row in changed if row is not None)]
    file.write_text("".join(f"{line}\r\n" for line in lines), "utf-8", newline="")
    project.run("msibuild", path, "-i", file)


def _complete(path: Path, version: str, programs: Sequence[str]) -> None:
    """Corrects and completes what wixl writes."""

    component = programs[0].replace("f_", "c_", 1)

    def with_properties(row: Row) -> Row:
        # Which public properties the privileged part of an installation gets to see.
        if row["Property"] == "SecureCustomProperties":
            row["Value"] = ";".join((*SECURE_PROPERTIES, row["Value"]))
        return row

    def with_versions(row: Row) -> Row:
        if row["File"] in programs:
            row["Version"], row["Language"] = f"{version}.0", "1033"
        return row

    def with_this_version(row: Row) -> Row:
        if row["ActionProperty"] == "OLDER":
            row["Attributes"] = str(_FROM_MINIMUM | _TO_MAXIMUM)
        return row

    def with_rollback(row: Row) -> Row:
        # wixl takes Execute="rollback" for "immediate".
        if row["Action"] == "RestoreTask":
            row["Type"] = str(int(row["Type"]) | _ON_ROLLBACK)
        return row

    # The product's folder goes too, if nothing else of the product is there.
    _edit(path, "RemoveFile", lambda row: row, {
        "FileKey": "RemoveProductFolder", "Component_": component, "FileName": "",
        "DirProperty": "ProductFolder", "InstallMode": str(_ON_REMOVAL),
    })
    _edit(path, "Property", with_properties)
    _edit(path, "File", with_versions)
    # A file has a version or a checksum.
    _edit(path, "MsiFileHash", lambda row: None if row["File_"] in programs else row)
    _edit(path, "Upgrade", with_this_version)
    _edit(path, "CustomAction", with_rollback)


def write(folder: Path, actions: Path, target: Path, abi: str, purpose: str, time: int) -> None:
    """The package that installs everything below a folder. `abi` tells builds of one version apart, and
    `purpose` says so to an administrator."""
    version = project.version()
    directories, references = _contents(folder)
    text = SOURCE.read_text("utf-8")
    product_code = identity("product", version, abi)
    for name, value in {
        "@NAME@": NAME, "@PUBLISHER@": PUBLISHER, "@VERSION@": version, "@PRODUCT_CODE@": product_code,
        "@UPGRADE_CODE@": UPGRADE_CODE, "@ACTIONS@": _source(actions), "@PURPOSE@": purpose,
        "<!-- directories -->": directories, "<!-- references -->": references,
    }.items():
        text = text.replace(name, value)
    source = WORK / f"{target.stem}.wxs"
    source.write_text(text, "utf-8")
    programs = [_name("f_", file) for file in project.files_below(folder) if file.suffix == ".exe"]
    # Times of files are local in a cabinet.
    project.run("wixl", "--arch", "x64", "--output", target, source, cwd=Path("/"), TZ="UTC0")
    _complete(target, version, programs)
    # The same commit gives the same code, another one another.
    _settle_summary(target, identity("package", version, abi, project.commit()), time)
