"""ZIPs and Windows Installer package of the Windows programs."""

from __future__ import annotations

import re
import zipfile
from collections.abc import Callable, Iterable
from datetime import datetime, timezone
from pathlib import Path

import linked
import msi
import project
import visual_cpp
from project import NAME, ROOT, WORK, Failure

BUILD = ROOT / "build/release-windows"
TOOLS = "x86_64-w64-mingw32-"
# The ABIs, which distinguish packages of the same version. Program and closed libraries must have the same.
MINGW, MSVC = "mingw", "msvc"
# The stand-ins must never be installed instead of the closed libraries, so developers get them separately.
COMPANION = f"{NAME}-{project.version()}-companion-development-windows-x64-{MINGW}"
PROGRAMS = {"KydLogUploader": "KydLogUploader.exe", "KydUploadStatus": "KydUploadStatus.exe"}
# The library that the Windows Installer package calls during installation and removal. It needs only Windows
# itself, so the build by MinGW-w64 serves all packages.
SETUP_ACTIONS = "KydSetupActions"
STAND_INS = {"Corvid": "Corvid.dll", "pelham": "pelham.dll", "keyward-seal": "keyward-seal.exe"}

Signer = Callable[[Path], None]


def _split_symbols(name: str, program: Path, symbols: Path, time: int) -> None:
    """Moves a program's debug information to a separate file; both contain the same build id."""
    project.copy(BUILD / "bin" / name, program)
    symbols.parent.mkdir(parents=True, exist_ok=True)
    # The tool writes this time stamp instead of the current time.
    epoch = str(time)
    project.run(f"{TOOLS}objcopy", "--only-keep-debug", program, symbols, SOURCE_DATE_EPOCH=epoch)
    # Debuggers look for a file of this name next to the program.
    project.run(
        f"{TOOLS}objcopy", "--strip-all", f"--add-gnu-debuglink={symbols.name}", program,
        cwd=symbols.parent, SOURCE_DATE_EPOCH=epoch,
    )


def _text(source: Path, target: Path) -> None:
    """Copies a text file with Windows line ends."""
    target.parent.mkdir(parents=True, exist_ok=True)
    target.write_text(source.read_text("utf-8"), "utf-8", newline="\r\n")


def write_zip(folder: Path, target: Path, time: int) -> None:
    """Packs a folder below a top-level folder named after the archive. Times are UTC, without a zone."""
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
    """Writes the licence text of each component, and the licences that the texts refer to."""
    for licence in linked.write_licences(inside, folder):
        project.copy(licence, folder / f"{licence.name}.txt")
    for name in project.files_below(folder):
        _text(folder / name, folder / name)


def product_name(abi: str) -> str:
    return f"{NAME}-{project.version()}-windows-x64-{abi}"


def purpose(abi: str) -> str:
    """Returns the purpose of an ABI's packages, as in the programs' version resource."""
    text = (ROOT / "cmake/WindowsIdentity.cmake").read_text("utf-8")
    found = re.search(rf'set\(kyd_purpose_{abi} "(.*)"\)', text)
    if found is None:
        raise Failure(f"cmake/WindowsIdentity.cmake does not define the purpose of {abi}")
    return found[1]


def purposes() -> dict[str, str]:
    """Returns the purpose of each product, by name."""
    return {product_name(abi): purpose(abi) for abi in (MINGW, MSVC)} | {COMPANION: purpose(MINGW)}


def _add_texts(product: Path, inside: Iterable[linked.Component]) -> None:
    for document in project.documents():
        _text(ROOT / document, product / document)
    for part in ("diagnostic-log", "monitoring", "windows"):
        for file in project.files_below(ROOT / "deploy" / part):
            project.copy(ROOT / "deploy" / part / file, product / "deploy" / part / file)
    _text(ROOT / "LICENSE", product / "LICENSE.txt")
    _licences(inside, product / "licenses")


def _write(product: Path, symbols: Path, dist: Path, abi: str, time: int, sign: Signer | None) -> None:
    """Creates the archives and the Windows Installer package of an ABI."""
    actions = WORK / f"{SETUP_ACTIONS}.dll"
    _split_symbols(actions.name, actions, symbols / f"{actions.name}.debug", time)
    # Sign first, so that both packages contain the same signed programs.
    if sign:
        for program in [*(product / name for name in PROGRAMS.values()), actions]:
            sign(program)
    for folder in (product, symbols):
        project.settle(folder, time)
        write_zip(folder, dist / f"{folder.name}.zip", time)
    package = dist / f"{product.name}.msi"
    msi.write(product, actions, package, abi, purpose(abi), time)
    if sign:
        sign(package)


def _folders(abi: str) -> tuple[Path, Path]:
    name = product_name(abi)
    return project.fresh(WORK / name), project.fresh(WORK / f"{name}-symbols")


def build(dist: Path, time: int, sign: Signer | None) -> dict[str, list[linked.Component]]:
    """Packages everything that MinGW-w64 has built; returns the components of each product by name."""
    of_product = linked.components(BUILD, [*PROGRAMS, SETUP_ACTIONS])
    product, symbols = _folders(MINGW)
    for name in PROGRAMS.values():
        _split_symbols(name, product / name, symbols / f"{name}.debug", time)
    _add_texts(product, of_product)
    _write(product, symbols, dist, MINGW, time, sign)

    of_companion = linked.components(BUILD, STAND_INS)
    companion = project.fresh(WORK / COMPANION)
    for name in STAND_INS.values():
        _split_symbols(name, companion / name, companion / f"{name}.debug", time)
    _text(ROOT / "companion/README.md", companion / "README.md")
    _text(ROOT / "docs/companion.md", companion / "docs/companion.md")
    _text(ROOT / "LICENSE", companion / "LICENSE.txt")
    _licences(of_companion, companion / "licenses")
    project.settle(companion, time)
    write_zip(companion, dist / f"{COMPANION}.zip", time)
    return {product.name: of_product, COMPANION: of_companion}


def build_visual_cpp(
    programs: Path, dist: Path, time: int, sign: Signer | None
) -> dict[str, list[linked.Component]]:
    """Does the same for programs with Visual C++'s ABI, which were built elsewhere."""
    inside = [*visual_cpp.components(programs), *linked.components(BUILD, [SETUP_ACTIONS])]
    product, symbols = _folders(MSVC)
    for name in PROGRAMS.values():
        project.copy(programs / name, product / name)
        database = Path(name).with_suffix(".pdb")
        project.copy(programs / database, symbols / database)
    _add_texts(product, inside)
    _write(product, symbols, dist, MSVC, time, sign)
    return {product.name: sorted(inside, key=lambda component: component.name)}
