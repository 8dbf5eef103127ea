"""packaging/build.py refuses a tree that cannot be packaged, and passes its options to the second build."""

import argparse
import importlib.machinery
import os
import subprocess
import sys
import types
from pathlib import Path

import pytest

from .conftest import ROOT


@pytest.fixture
def script(monkeypatch):
    """packaging/build.py under another module name, because these tests are a package "build" themselves."""
    monkeypatch.syspath_prepend(ROOT / "packaging")
    loader = importlib.machinery.SourceFileLoader("packaging_build", str(ROOT / "packaging/build.py"))
    module = types.ModuleType(loader.name)
    loader.exec_module(module)
    return module


@pytest.fixture
def changed_tree(tmp_path):
    tree = tmp_path / "tree"
    subprocess.run(["git", "clone", "--quiet", "--shared", ROOT, tree], check=True, timeout=60)
    (tree / "more").write_text("", "ascii")
    return tree


@pytest.mark.parametrize("options", [[], ["--check-reproducible"], ["--check-reproducible", "--allow-changes"]])
def test_tree_with_changes_is_refused(changed_tree, options):
    done = subprocess.run(
        [sys.executable, changed_tree / "packaging/build.py", *options],
        stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60, check=False,
    )
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == "package: packages are made of a commit, and the tree has changes:\n?? more\n"


@pytest.mark.parametrize("allow", [False, True])
def test_second_build_gets_the_same_programs(script, tmp_path, monkeypatch, allow):
    monkeypatch.chdir(tmp_path)
    (tmp_path / "programs").mkdir()
    options = argparse.Namespace(allow_changes=allow, windows_programs=Path("programs"))
    expected = ["--windows-programs", os.fspath(tmp_path / "programs")]
    assert script.options_of_the_second_build(options) == ["--allow-changes"] * allow + expected
    options.windows_programs = None
    assert script.options_of_the_second_build(options) == ["--allow-changes"] * allow
