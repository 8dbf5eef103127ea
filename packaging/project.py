"""Shared by the packaging scripts: facts about the project, its folders, running tools."""

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
# Tools must not localise their output, because it is parsed.
MESSAGES_ARE_READ = {**os.environ, "LC_ALL": "C.UTF-8"}
PUBLISHER = f"The {NAME} authors"


class Failure(Exception):
    """A problem that the user must fix; the text describes it."""


def version() -> str:
    """Returns the version from its only definition, the build file."""
    text = (ROOT / "CMakeLists.txt").read_text("utf-8")
    found = re.search(rf"project\({NAME} VERSION (\d+\.\d+\.\d+)", text)
    if found is None:
        raise Failure("CMakeLists.txt does not define the version")
    return found[1]


def run(*command: str | os.PathLike[str], cwd: Path = ROOT, **environment: str) -> str:
    """Runs a tool, which must succeed, and returns its output."""
    done = subprocess.run(
        [os.fspath(word) for word in command], cwd=cwd, check=False, text=True, errors="replace",
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        env={**MESSAGES_ARE_READ, **environment},
    )
    if done.returncode != 0:
        raise Failure(f"{command[0]} exited with code {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


def commit() -> str:
    return run("git", "rev-parse", "HEAD").strip()


def commit_time() -> int:
    """Returns the only time stamp that packages contain, in seconds since 1970."""
    return int(run("git", "log", "-1", "--format=%ct"))


def changes() -> list[str]:
    """Returns the uncommitted changes, which would otherwise be packaged unnoticed."""
    return run("git", "status", "--porcelain").splitlines()


def fresh(folder: Path) -> Path:
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    return folder


def copy(source: Path, target: Path) -> None:
    target.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(source, target)


def settle(folder: Path, time: int) -> None:
    """Sets the time of everything below a folder to the packages' time stamp."""
    for path in folder.rglob("*"):
        os.utime(path, (time, time))


def files_below(folder: Path) -> list[Path]:
    """Returns the relative paths of all files, in a reproducible order."""
    found = (path.relative_to(folder) for path in folder.rglob("*") if path.is_file())
    return sorted(found, key=lambda path: path.as_posix())


def documents() -> Sequence[Path]:
    """Returns the documents for users of a package, relative to the project."""
    names = [Path("README.md"), Path("CHANGELOG.md"), Path("deploy/README.md")]
    names += [path.relative_to(ROOT) for path in sorted((ROOT / "docs").glob("*.md"))]
    return [name for name in names if (ROOT / name).exists()]
