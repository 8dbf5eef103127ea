"""Checks that a commit gives the same packages again: in another folder, without caches, at another time, and
with another user's settings."""

from __future__ import annotations

import os
import shutil
import tempfile
from pathlib import Path

import project
from project import DIST, ROOT, Failure, run


def _bytes(folder: Path) -> dict[str, bytes]:
    return {name.as_posix(): (folder / name).read_bytes() for name in project.files_below(folder)}


def compare(first: Path, second: Path) -> list[str]:
    """Describes the differences between two folders."""
    ours, theirs = _bytes(first), _bytes(second)
    differences = [f"{name} exists in only one build" for name in sorted(ours.keys() ^ theirs.keys())]
    for name in sorted(ours.keys() & theirs.keys()):
        if ours[name] != theirs[name]:
            pairs = zip(ours[name], theirs[name])
            place = next((at for at, (a, b) in enumerate(pairs) if a != b), "the end")
            differences.append(f"{name} differs from byte {place}")
    return differences


def check(options: list[str]) -> None:
    """Builds the commit again with the same options and compares the result with dist/. Programs that were
    built elsewhere are only packaged again."""
    keep = Path(tempfile.mkdtemp(prefix="kydloguploader-again-"))
    clone = keep / "a-tree-in-another-place"
    cache = os.environ.get("KYD_CACHE") or Path(
        os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache", project.NAME.lower()
    )
    # The REST library's source is an input; everything built from it is built again.
    shutil.copytree(Path(cache) / "cpprestsdk/source", keep / "cache/cpprestsdk/source")
    run("git", "clone", "--quiet", "--no-hardlinks", ROOT, clone)
    run("git", "checkout", "--quiet", "--detach", project.commit(), cwd=clone)
    print("Building the commit again, including the REST library; this takes a long time", flush=True)
    run(
        "sh", "-c", 'umask 027; exec ./dev package "$@"', "sh", *options, cwd=clone,
        KYD_CACHE=os.fspath(keep / "cache"), TZ="Pacific/Auckland", HOME=os.fspath(keep), LANG="C",
    )
    differences = compare(DIST, clone / "dist")
    if differences:
        raise Failure("\n  ".join(["the second build differs:", *differences, f"it is in {clone}"]))
    shutil.rmtree(keep)
    print("The second build is identical")
