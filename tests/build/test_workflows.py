"""The workflows of the forge call only what exists."""

import json
import os
import re
import shlex
import subprocess

import pytest

from .conftest import ROOT

WORKFLOWS = sorted((ROOT / ".github/workflows").glob("*.yml"))
# Programs of the runners' operating systems.
SYSTEM = {"apt-get", "cmake", "gh", "git", "mv", "python", "rm", "sha256sum"}
VCPKG = "vcpkg/"  # where a workflow checks out vcpkg


def commands(workflow):
    """Returns the command lines of the steps, each as a list of words."""
    lines = re.findall(r"^ +(?:- )?run: (.*)$", workflow.read_text("utf-8"), re.M)
    assert lines and "|" not in lines, "multi-line steps are not supported"
    return [shlex.split(part) for line in lines for part in line.split(" && ")]


def unknown_command(words):
    """Returns what is wrong with a command line, or None."""
    program, *arguments = words
    if program == "cmake":
        presets = {one["name"] for one in json.loads((ROOT / "CMakePresets.json").read_text("utf-8"))["buildPresets"]}
        return None if set(arguments) <= {"--build", "--preset"} | presets else f"unknown preset: {arguments}"
    if program == "python" and arguments[0] != "-m":
        return None if (ROOT / arguments[0]).is_file() else f"{arguments[0]} does not exist"
    if program in SYSTEM or program.startswith(VCPKG):
        return None
    if not program.startswith("./") or not os.access(ROOT / program, os.X_OK):
        return f"{program} does not exist"
    if program == "./dev":
        known = re.findall(r"^  ([a-z]+)\b", (ROOT / "dev").read_text("utf-8").split("TEXT")[1], re.M)
        if not arguments or arguments[0] not in known:
            return f"./dev has no command {arguments}"
    return None


@pytest.mark.parametrize("workflow", WORKFLOWS, ids=lambda path: path.name)
def test_every_command_exists(workflow):
    assert [found for words in commands(workflow) if (found := unknown_command(words))] == []


@pytest.mark.parametrize("workflow", WORKFLOWS, ids=lambda path: path.name)
def test_every_path_exists(workflow):
    text = workflow.read_text("utf-8")
    patterns = [name for call in re.findall(r"hashFiles\((.+?)\)", text) for name in re.findall(r"'([^']+)'", call)]
    patterns += re.findall(r"uses: \./(\S+)", text)
    for pattern in patterns:
        assert any(ROOT.glob(pattern)), f"nothing matches {pattern}"


def test_both_releases_run_every_test():
    ci = ROOT / ".github/workflows/ci.yml"
    (releases,) = re.findall(r"^ +release: \[(.*)\]$", ci.read_text("utf-8"), re.M)
    (known,) = re.findall(r'^readonly known="(.*)"$', (ROOT / "tests/other_debian").read_text("utf-8"), re.M)
    assert releases.split(", ") == known.split()
    lines = commands(ci)
    # Without a browser and Prometheus, tests would be skipped.
    setup = ["./dev", "setup", "--browser", "--monitoring"]
    assert lines.index(setup) < lines.index(["./dev", "test"])
    assert shlex.join(setup) in (ROOT / ".ci/run").read_text("utf-8")


def test_windows_builds_with_the_pinned_vcpkg():
    ci = (ROOT / ".github/workflows/ci.yml").read_text("utf-8")
    (ref,) = re.findall(r"repository: microsoft/vcpkg\n +ref: (\S+)", ci)
    assert ref == json.loads((ROOT / "vcpkg.json").read_text("utf-8"))["builtin-baseline"]


def test_release_packages_what_windows_has_built():
    ci, release = ((ROOT / ".github/workflows" / name).read_text("utf-8") for name in ("ci.yml", "release.yml"))
    (uploaded, folder), = re.findall(r"upload-artifact@\S+\n +with:\n +name: (\S+)\n +path: (\S+)", ci)
    (place,) = re.findall(rf"name: {uploaded}\n +path: (\S+)", release)
    assert folder == "build/release-msvc/bin"
    assert f"./dev package --test --windows-programs {place}\n" in release
    # The folder must be ignored by git, because a tree with changes is not packaged.
    subprocess.run(["git", "check-ignore", "--quiet", f"{place}/KydLogUploader.exe"], cwd=ROOT, check=True)


def test_checksums_of_a_release_cover_the_packages_of_both(tmp_path):
    release = (ROOT / ".github/workflows/release.yml").read_text("utf-8")
    (line,) = re.findall(r"run: (.*sha256sum.*)\n +working-directory: dist\n", release)
    dist = tmp_path / "dist"
    dist.mkdir()
    for name in ("a_1.0+deb12.deb", "a_1.0+deb13.deb", "a.msi"):
        (dist / name).write_text(name, "utf-8")
    (dist / "SHA256SUMS").write_text("of one release", "utf-8")
    subprocess.run(line, shell=True, cwd=dist, check=True)
    checked = subprocess.run(["sha256sum", "--check", "SHA256SUMS"], cwd=dist, capture_output=True, text=True, check=True)
    assert checked.stdout == "a.msi: OK\na_1.0+deb12.deb: OK\na_1.0+deb13.deb: OK\n"


@pytest.mark.parametrize("line", ["./dve test", "./dev tset", "./dev", "./tests/no_such_script", "make test",
                                  "cmake --preset nothing", "python tests/none.py"])
def test_wrong_command_is_detected(line):
    assert unknown_command(line.split())
