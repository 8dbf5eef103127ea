"""What the packages' parts share: the project's facts, its folders, and how a tool is run."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
from collections.abc import Sequence
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
WORK = ROOT / "build/package"
DIST = ROOT / "dist"
NAME = "KydLogUploader"
# The environment of tools: their output is parsed here, so it must not be localised.
MESSAGES_ARE_READ = {**os.environ, "LC_ALL": "C.UTF-8"}
PUBLISHER = f"The {NAME} authors"


class Failure(Exception):
    """A problem that the person who makes the packages has to fix; the text says what."""


def version() -> str:
    """As the build knows it, which is the one place where it is written."""
    text = (ROOT / "CMakeLists.txt").read_text("utf-8")
    found = re.search(rf"project\({NAME} VERSION (\d+\.\d+\.\d+)", text)
    if found is None:
        raise Failure("CMakeLists.txt names no version")
    return found[1]


def run(*command: str | os.PathLike[str], cwd: Path = ROOT, **environment: str) -> str:
    """Runs a tool that has to succeed, and returns what it prints."""
    done = subprocess.run(
        [os.fspath(word) for word in command], cwd=cwd, check=False, text=True, errors="replace",
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        env={**MESSAGES_ARE_READ, **environment},
    )
    if done.returncode != 0:
        raise Failure(f"{command[0]} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


def commit() -> str:
    return run("git", "rev-parse", "HEAD").strip()


def commit_time() -> int:
    """The one time that any package shows, in seconds since 1970."""
    return int(run("git", "log", "-1", "--format=%ct"))


def changes() -> list[str]:
    """What the working tree has beside the commit, and would go into the packages unnoticed."""
    return run("git", "status", "--porcelain").splitlines()


def fresh(folder: Path) -> Path:
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    return folder


def copy(source: Path, target: Path) -> None:
    target.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(source, target)


def settle(folder: Path, time: int) -> None:
    """Gives everything below a folder the one time that packages show."""
    for path in folder.rglob("*"):
        os.utime(path, (time, time))


def files_below(folder: Path) -> list[Path]:
    """Relative paths of the files, in an order that depends on nothing but their names."""
    found = (path.relative_to(folder) for path in folder.rglob("*") if path.is_file())
    return sorted(found, key=lambda path: path.as_posix())


def documents() -> Sequence[Path]:
    """What there is to read for those who use a package, relative to the project."""
    names = [Path("README.md"), Path("CHANGELOG.md"), Path("deploy/README.md")]
    names += [path.relative_to(ROOT) for path in sorted((ROOT / "docs").glob("*.md"))]
    return [name for name in names if (ROOT / name).exists()]
