"""The Windows Installer package, built with wixl."""

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

# Must never change: identifies installed versions of both ABIs.
UPGRADE_CODE = "B5C34B57-4C3E-4D6E-9F0C-0E9C3D5A7F21"
# All other GUIDs are derived from this one.
_NAMESPACE = uuid.UUID("5d6d1f0b-8a0e-4c3c-9d51-6a5a3f1c2e74")
SOURCE = ROOT / "packaging/windows/package.wxs"
SECURE_PROPERTIES = ("TENANT", "LOGDIR")
# Attributes of the table Upgrade: the range includes the version itself.
_FROM_MINIMUM, _TO_MAXIMUM = 256, 512
_ON_REMOVAL = 2  # of the table RemoveFile
_ON_ROLLBACK = 256 + 1024  # of the table CustomAction

_SUMMARY_FORMAT = bytes.fromhex("e0859ff2f94f6810ab9108002b27b3d9")
_PACKAGE_CODE, _CREATED, _SAVED = 9, 12, 13
_TEXT, _TIME = 30, 64


def identity(*words: str) -> str:
    return str(uuid.uuid5(_NAMESPACE, "/".join(words))).upper()


def _name(prefix: str, path: Path) -> str:
    """Returns the name of a table row for a path; names allow fewer characters."""
    return prefix + re.sub(r"[^A-Za-z0-9.]", "_", path.as_posix())


def _short(number: int, name: str) -> str:
    """Puts an 8.3 name before the long name, as the table requires."""
    suffix = Path(name).suffix[1:4].upper()
    return f"KYD{number:05X}{'.' if suffix else ''}{suffix}|{name}"


def _source(path: Path) -> str:
    """Returns a path relative to the root folder, where wixl runs: it accepts only relative paths."""
    return os.fspath(path.relative_to("/"))


def _contents(folder: Path) -> tuple[str, str]:
    """Returns the directories with a component for each file, and the references to the components."""
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
    """Sets the package's code and times, where wixl writes a random code and the current time."""
    content = bytearray(path.read_bytes())
    found = content.find(_SUMMARY_FORMAT)
    if found < 0 or content.find(_SUMMARY_FORMAT, found + 1) >= 0:
        raise Failure(f"{path} does not have exactly one summary")
    # The format id starts at offset 28 of the stream and is followed by the section's offset in the stream.
    section = found - 28 + struct.unpack_from("<I", content, found + 16)[0]
    # Units of 100 nanoseconds since 1601.
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
                raise Failure(f"{path}: property {number} of the summary has another type")
            content[place + 4:place + 4 + len(value)] = value
    if wanted:
        raise Failure(f"{path}: the summary has no property {sorted(wanted)}")
    path.write_bytes(content)


Row = dict[str, str]


def _edit(path: Path, table: str, change: Callable[[Row], Row | None], *more: Row) -> None:
    """Replaces, removes and adds table rows that wixl cannot express."""
    text = project.run("msiinfo", "export", path, table)
    head, rows = text.splitlines()[:3], text.splitlines()[3:]
    columns = head[0].split("\t")
    changed = [*(change(dict(zip(columns, row.split("\t")))) for row in rows), *more]
    file = WORK / f"{table}.idt"
    lines = [*head, *("\t".join(row[column] for column in columns) for row in changed if row is not None)]
    file.write_text("".join(f"{line}\r\n" for line in lines), "utf-8", newline="")
    project.run("msibuild", path, "-i", file)


def _complete(path: Path, version: str, programs: Sequence[str]) -> None:
    """Corrects and completes wixl's output."""

    component = programs[0].replace("f_", "c_", 1)

    def with_properties(row: Row) -> Row:
        # The public properties that are passed to the privileged part of an installation.
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
        # wixl treats Execute="rollback" like "immediate".
        if row["Action"] == "RestoreTask":
            row["Type"] = str(int(row["Type"]) | _ON_ROLLBACK)
        return row

    # Also remove the product's folder if it is empty.
    _edit(path, "RemoveFile", lambda row: row, {
        "FileKey": "RemoveProductFolder", "Component_": component, "FileName": "",
        "DirProperty": "ProductFolder", "InstallMode": str(_ON_REMOVAL),
    })
    _edit(path, "Property", with_properties)
    _edit(path, "File", with_versions)
    # A file has either a version or a hash.
    _edit(path, "MsiFileHash", lambda row: None if row["File_"] in programs else row)
    _edit(path, "Upgrade", with_this_version)
    _edit(path, "CustomAction", with_rollback)


def write(folder: Path, actions: Path, target: Path, abi: str, purpose: str, time: int) -> None:
    """Creates a package that installs everything below a folder. `abi` distinguishes builds of the same
    version; `purpose` explains it to the administrator."""
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
    # Cabinets store local time.
    project.run("wixl", "--arch", "x64", "--output", target, source, cwd=Path("/"), TZ="UTC0")
    _complete(target, version, programs)
    # The code depends only on the commit, version and ABI.
    _settle_summary(target, identity("package", version, abi, project.commit()), time)
