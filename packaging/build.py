#!/usr/bin/python3
"""Creates all packages of a commit in dist/: ZIPs and MSI package for Windows, the Debian package, debug
symbols, bills of materials and checksums."""

from __future__ import annotations

import argparse
import hashlib
import os
import sys
from pathlib import Path

import bill
import debian
import project
import reproduce
import visual_cpp
import windows
from project import DIST, Failure
from signing import Signing


def write_sums(folder: Path) -> None:
    """Writes SHA256SUMS in the format of sha256sum."""
    lines = []
    for name in project.files_below(folder):
        digest = hashlib.sha256((folder / name).read_bytes()).hexdigest()
        lines.append(f"{digest}  {name}\n")
    (folder / "SHA256SUMS").write_text("".join(lines), "utf-8")


def build_programs(preset: str) -> None:
    """Builds in separate folders; the developers' builds stay as they are."""
    print(f"Building {preset}", flush=True)
    if not (project.ROOT / "build" / preset / "build.ninja").exists():
        project.run("cmake", "--preset", preset)
    project.run("cmake", "--build", "--preset", preset, "--parallel", str(os.cpu_count() or 1))


def build(options: argparse.Namespace) -> None:
    changes = project.changes()
    if changes and (options.check_reproducible or not options.allow_changes):
        raise Failure("packages are made of a commit, and the tree has changes:\n" + "\n".join(changes))
    signing = None
    if options.sign:
        certificate, key = options.sign
        signing = Signing(certificate, key, options.time_stamp)
    if options.windows_programs:
        visual_cpp.check(
            options.windows_programs, windows.PROGRAMS.values(), stand_in_allowed=options.allow_changes
        )
    for folder in (windows.BUILD, debian.BUILD):
        build_programs(folder.name)
    time = project.commit_time()
    project.fresh(DIST)
    products = windows.build(DIST, time, signing)
    if options.windows_programs:
        products |= windows.build_visual_cpp(options.windows_programs, DIST, time, signing)
    products |= debian.build(DIST, time)
    purposes = windows.purposes()
    for product, components in products.items():
        bill.write(DIST / f"{product}.cdx.json", product, components, purposes.get(product))
    write_sums(DIST)


def options_of_the_second_build(options: argparse.Namespace) -> list[str]:
    """Returns options for another folder. With a clean tree, --allow-changes only permits a stand-in SDK."""
    again = ["--allow-changes"] if options.allow_changes else []
    if options.windows_programs:
        again += ["--windows-programs", os.fspath(options.windows_programs.resolve())]
    return again


def main() -> int:
    parser = argparse.ArgumentParser(prog="./dev package", description=__doc__)
    parser.add_argument(
        "--allow-changes", action="store_true",
        help="for experiments: also package a tree with uncommitted changes, or Windows programs "
        "that were built with a stand-in for the Windows SDK",
    )
    parser.add_argument(
        "--windows-programs", type=Path, metavar="DIR",
        help="also create the packages for closed libraries that Visual Studio has built, from programs that "
        "were built elsewhere; the folder contains the programs, their .pdb files and vcpkg's folder 'share'",
    )
    parser.add_argument(
        "--sign", nargs=2, type=Path, metavar=("CERTIFICATE", "KEY"),
        help="sign the Windows programs and the MSI package (PEM files)",
    )
    parser.add_argument("--time-stamp", metavar="URL", help="time stamp authority for the signatures")
    parser.add_argument(
        "--check-reproducible", action="store_true",
        help="build the commit again, in another folder and without caches, and compare",
    )
    options = parser.parse_args()
    if options.sign and options.check_reproducible:
        parser.error("--check-reproducible cannot be combined with --sign: signatures are never reproducible")
    if options.time_stamp and not options.sign:
        parser.error("--time-stamp requires --sign")
    try:
        build(options)
        if options.check_reproducible:
            reproduce.check(options_of_the_second_build(options))
    except Failure as failure:
        print(f"package: {failure}", file=sys.stderr)
        return 1
    for name in project.files_below(DIST):
        print(f"{(DIST / name).stat().st_size:12,}  dist/{name}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
