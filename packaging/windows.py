"""ZIPs and Windows Installer package of the Windows programs."""

from __future__ import annotations

import zipfile
from collections.abc import Callable, Iterable
from datetime import datetime, timezone
from pathlib import Path

import linked
import msi
import project
from project import NAME, ROOT, WORK

BUILD = ROOT / "build/release-windows"
TOOLS = "x86_64-w64-mingw32-"
PRODUCT = f"{NAME}-{project.version()}-windows-x64"
# The stand-ins never go where the closed libraries belong; those who develop get them separately.
COMPANION = f"{NAME}-{project.version()}-companion-development-windows-x64"
PROGRAMS = {"KydLogUploader": "KydLogUploader.exe", "KydUploadStatus": "KydUploadStatus.exe"}
# What the Windows Installer package runs while it is installed or removed.
SETUP_ACTIONS = "KydSetupActions"
# The toolchain, by which packages of one version are told apart.
ABI = "mingw"
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


def build(dist: Path, time: int, sign: Signer | None) -> dict[str, list[linked.Component]]:
    """Writes everything for Windows; returns what is in each product, by the product's name."""
    of_product = linked.components(BUILD, [*PROGRAMS, SETUP_ACTIONS])
    of_companion = linked.components(BUILD, STAND_INS)
    product, symbols, companion = (
        project.fresh(WORK / name) for name in (PRODUCT, f"{PRODUCT}-symbols", COMPANION)
    )

    for name in PROGRAMS.values():
        _split_symbols(name, product / name, symbols / f"{name}.debug", time)
    actions = WORK / f"{SETUP_ACTIONS}.dll"
    _split_symbols(actions.name, actions, symbols / f"{actions.name}.debug", time)
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

    # Before anything is packed: both packages hold the same signed programs.
    if sign:
        for program in [*(product / name for name in PROGRAMS.values()), actions]:
            sign(program)
    for folder in (product, symbols, companion):
        project.settle(folder, time)
        write_zip(folder, dist / f"{folder.name}.zip", time)
    package = dist / f"{PRODUCT}.msi"
    msi.write(product, actions, package, ABI, time)
    if sign:
        sign(package)
    return {PRODUCT: of_product, COMPANION: of_companion}
