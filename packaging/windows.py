"""ZIPs and installer of the Windows programs."""

from __future__ import annotations

import os
import zipfile
from collections.abc import Callable, Iterable
from datetime import datetime, timezone
from pathlib import Path

import linked
import project
from project import NAME, ROOT, WORK

BUILD = ROOT / "build/release-windows"
TOOLS = "x86_64-w64-mingw32-"
PRODUCT = f"{NAME}-{project.version()}-windows-x64"
# The stand-ins never go where the closed libraries belong; those who develop get them separately.
COMPANION = f"{NAME}-{project.version()}-companion-development-windows-x64"
PROGRAMS = {"KydLogUploader": "KydLogUploader.exe", "KydUploadStatus": "KydUploadStatus.exe"}
STAND_INS = {"Corvid": "Corvid.dll", "pelham": "pelham.dll", "keyward-seal": "keyward-seal.exe"}

Signer = Callable[[Path], None]


def _split_symbols(name: str, program: Path, symbols: Path, time: int) -> None:
    """Takes the debug information out of a program; a build id in both tells that they belong together."""
    project.copy(BUILD / "bin" / name, program)
    symbols.parent.mkdir(parents=True, exist_ok=True)
    # The tool writes a time into what it writes: this one, or else its own.
    epoch = str(time)
    project.run(f"{TOOLS}objcopy", "--only-keep-debug", program, symbols, SOURCE_DATE_EPOCH=epoch)
    # Debuggers look for the name beside the program.
    project.run(
        f"{TOOLS}objcopy", "--strip-all", f"--add-gnu-debuglink={symbols.name}", program,
        cwd=symbols.parent, SOURCE_DATE_EPOCH=epoch,
    )


def _text(source: Path, target: Path) -> None:
    """A text that is read with what a Windows machine has."""
    target.parent.mkdir(parents=True, exist_ok=True)
    target.write_text(source.read_text("utf-8"), "utf-8", newline="\r\n")


def write_zip(folder: Path, target: Path, time: int) -> None:
    """Everything below a folder, under the archive's own name. Times are UTC: the format knows no zone."""
    moment = datetime.fromtimestamp(time, timezone.utc).timetuple()[:6]
    with zipfile.ZipFile(target, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as archive:
        for name in project.files_below(folder):
            entry = zipfile.ZipInfo(f"{target.stem}/{name.as_posix()}", moment)
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.create_system = 3
            mode = 0o755 if name.suffix in (".exe", ".dll") else 0o644
            entry.external_attr = (0o100000 | mode) << 16
            archive.writestr(entry, (folder / name).read_bytes())


def _licences(inside: Iterable[linked.Component], folder: Path) -> None:
    """A licence text for whatever is inside, and those to which the texts refer."""
    for licence in linked.write_licences(inside, folder):
        project.copy(licence, folder / f"{licence.name}.txt")
    for name in project.files_below(folder):
        _text(folder / name, folder / name)


def _nsis(path: Path) -> str:
    return path.as_posix().replace("/", "\\")


def _file_list(folder: Path) -> str:
    """The macros by which the installer installs and removes exactly these files."""
    files = project.files_below(folder)
    folders = sorted({parent for file in files for parent in file.parents if parent != Path(".")})
    lines = ["!macro InstallFiles"]
    for parent in [Path("."), *folders]:
        inside = [file for file in files if file.parent == parent]
        if inside:
            place = "$INSTDIR" if parent == Path(".") else f"$INSTDIR\\{_nsis(parent)}"
            lines.append(f'  SetOutPath "{place}"')
            lines += [f'  File "{folder / file}"' for file in inside]
    lines += ["!macroend", "!macro DeleteFiles"]
    lines += [f'  Delete "$INSTDIR\\{_nsis(file)}"' for file in files]
    lines += ["!macroend", "!macro RemoveFolders"]
    lines += [f'  RMDir "$INSTDIR\\{_nsis(parent)}"' for parent in reversed(folders)]
    return "\n".join([*lines, "!macroend", ""])


def _write_installer(folder: Path, target: Path, time: int, sign_command: str | None) -> None:
    list_file = WORK / "installer-files.nsh"
    list_file.write_text(_file_list(folder), "utf-8")
    size = sum((folder / name).stat().st_size for name in project.files_below(folder))
    defines = {
        "VERSION": project.version(),
        "YEAR": str(datetime.fromtimestamp(time, timezone.utc).year),
        "OUT": os.fspath(target),
        "FILES": os.fspath(list_file),
        "LICENCE": os.fspath(folder / "LICENSE.txt"),
        "KIBIBYTES": str(size // 1024),
    }
    if sign_command:
        defines["SIGN"] = sign_command
    project.run(
        "makensis", "-V2", "-WX", "-INPUTCHARSET", "UTF8",
        *(f"-D{name}={value}" for name, value in defines.items()),
        ROOT / "packaging/windows/installer.nsi",
        SOURCE_DATE_EPOCH=str(time),
    )


def _components(targets: Iterable[str], *further: str) -> list[linked.Component]:
    found = linked.components(BUILD, targets)
    return sorted(
        [*found, *(linked.debian_package(name, "static") for name in further)],
        key=lambda component: component.name,
    )


def build(
    dist: Path, time: int, sign: Signer | None, sign_command: str | None
) -> dict[str, list[linked.Component]]:
    """Writes everything for Windows; returns what is in each product, by the product's name."""
    # What the installer brings of its own is the installer's program.
    of_product = _components(PROGRAMS, "nsis-common")
    of_companion = _components(STAND_INS)
    product, symbols, companion = (
        project.fresh(WORK / name) for name in (PRODUCT, f"{PRODUCT}-symbols", COMPANION)
    )

    for name in PROGRAMS.values():
        _split_symbols(name, product / name, symbols / f"{name}.debug", time)
    for document in project.documents():
        _text(ROOT / document, product / document)
    for part in ("diagnostic-log", "monitoring", "windows"):
        for file in project.files_below(ROOT / "deploy" / part):
            project.copy(ROOT / "deploy" / part / file, product / "deploy" / part / file)
    _text(ROOT / "LICENSE", product / "LICENSE.txt")
    _licences(of_product, product / "licenses")

    for name in STAND_INS.values():
        _split_symbols(name, companion / name, companion / f"{name}.debug", time)
    _text(ROOT / "companion/README.md", companion / "README.md")
    _text(ROOT / "docs/companion.md", companion / "docs/companion.md")
    _text(ROOT / "LICENSE", companion / "LICENSE.txt")
    _licences(of_companion, companion / "licenses")

    # Before anything is packed: ZIP and installer hold the same signed programs.
    if sign:
        for name in PROGRAMS.values():
            sign(product / name)
    for folder in (product, symbols, companion):
        project.settle(folder, time)
        write_zip(folder, dist / f"{folder.name}.zip", time)
    installer = dist / f"{PRODUCT}-setup.exe"
    _write_installer(product, installer, time, sign_command)
    if sign:
        sign(installer)
    return {PRODUCT: of_product, COMPANION: of_companion}
