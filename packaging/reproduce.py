"""Shows that a commit gives the same packages again: in another folder, with nothing from a cache, at another
time, under another user's settings."""

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
    """What differs between two folders, in words."""
    ours, theirs = _bytes(first), _bytes(second)
    differences = [f"{name} is made only once" for name in sorted(ours.keys() ^ theirs.keys())]
    for name in sorted(ours.keys() & theirs.keys()):
        if ours[name] != theirs[name]:
            pairs = zip(ours[name], theirs[name])
            place = next((at for at, (a, b) in enumerate(pairs) if a != b), "the end")
            differences.append(f"{name} differs from byte {place} on")
    return differences


def check(options: list[str]) -> None:
    """Builds the commit once more, with the same options, and compares with what lies in dist/. Programs that were
    built elsewhere are packed once more."""
    keep = Path(tempfile.mkdtemp(prefix="kydloguploader-again-"))
    clone = keep / "a-tree-in-another-place"
    cache = os.environ.get("KYD_CACHE") or Path(
        os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache", project.NAME.lower()
    )
    # The REST library's source is no result; everything that is built from it is.
    shutil.copytree(Path(cache) / "cpprestsdk/source", keep / "cache/cpprestsdk/source")
    run("git", "clone", "--quiet", "--no-hardlinks", ROOT, clone)
    run("git", "checkout", "--quiet", "--detach", project.commit(), cwd=clone)
    print("Building the commit a second time: this also builds the REST library, and takes long", flush=True)
    run(
        "sh", "-c", 'umask 027; exec ./dev package "$@"', "sh", *options, cwd=clone,
        KYD_CACHE=os.fspath(keep / "cache"), TZ="Pacific/Auckland", HOME=os.fspath(keep), LANG="C",
    )
    differences = compare(DIST, clone / "dist")
    if differences:
        raise Failure("\n  ".join(["the second build is not the first:", *differences, f"it is in {clone}"]))
    shutil.rmtree(keep)
    print("The second build gave the same bytes")
