"""The workflows of the forge call what is there."""

import os
import re
import shlex

import pytest

from .conftest import ROOT

WORKFLOWS = sorted((ROOT / ".github/workflows").glob("*.yml"))
# Programs of the runners' systems.
SYSTEM = {"apt-get", "git"}


def commands(workflow):
    """The command lines of the steps, each as a list of words."""
    lines = re.findall(r"^ +(?:- )?run: (.*)$", workflow.read_text("utf-8"), re.M)
    assert lines and "|" not in lines, "a step of several lines is not read here"
    return [shlex.split(part) for line in lines for part in line.split(" && ")]


def unknown_command(words):
    """What is wrong with a command line, or None."""
    program, *arguments = words
    if program in SYSTEM:
        return None
    if not program.startswith("./") or not os.access(ROOT / program, os.X_OK):
        return f"{program} is not there"
    if program == "./dev":
        known = re.findall(r"^  ([a-z]+)\b", (ROOT / "dev").read_text("utf-8").split("TEXT")[1], re.M)
        if not arguments or arguments[0] not in known:
            return f"./dev has no command {arguments}"
    return None


@pytest.mark.parametrize("workflow", WORKFLOWS, ids=lambda path: path.name)
def test_every_command_is_there(workflow):
    assert [found for words in commands(workflow) if (found := unknown_command(words))] == []


@pytest.mark.parametrize("workflow", WORKFLOWS, ids=lambda path: path.name)
def test_every_path_is_there(workflow):
    patterns = re.findall(r"hashFiles\('([^']+)'\)", workflow.read_text("utf-8"))
    for pattern in patterns:
        assert any(ROOT.glob(pattern)), f"nothing is called {pattern}"


def test_both_releases_run_every_test():
    ci = ROOT / ".github/workflows/ci.yml"
    (releases,) = re.findall(r"^ +release: \[(.*)\]$", ci.read_text("utf-8"), re.M)
    (known,) = re.findall(r'^readonly known="(.*)"$', (ROOT / "tests/other_debian").read_text("utf-8"), re.M)
    assert releases.split(", ") == known.split()
    assert ["./dev", "test"] in commands(ci)


@pytest.mark.parametrize("line", ["./dve test", "./dev tset", "./dev", "./tests/no_such_script", "make test"])
def test_command_that_is_not_there_is_found(line):
    assert unknown_command(line.split())
