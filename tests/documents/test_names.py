"""Files and tests that the documents name exist."""

import re

import pytest

from .markdown import ROOT, documents, tracked_files

FOLDERS = sorted({name.split("/")[0] for name in tracked_files() if "/" in name and name[0] != "."})
PATH = re.compile(rf"(?<![\w/<*.~-])(?:{'|'.join(FOLDERS)})/[\w.-]+(?:/[\w.-]+)*")
TEST = re.compile(r"\btest_\w+\b(?:\.py\b)?|\b\w+_test\.cpp\b")

# Names in examples, of files that do not exist.
IMAGINED = {"platform/volume.h", "tests/unit/platform/volume_test.cpp", "volume_test.cpp",
            "volume_posix_test.cpp"}


def found_in(pattern):
    return [pytest.param(number, text, id=f"{name}:{number}: {text}")
            for name, document in documents().items() for number, line in enumerate(document.lines, 1)
            for text in (match.rstrip(".") for match in pattern.findall(line)) if text not in IMAGINED]


PATHS = found_in(PATH)
TESTS = found_in(TEST)


@pytest.fixture(scope="module")
def sources_of_tests():
    return {name: (ROOT / name).read_text("utf-8") for name in tracked_files()
            if name.endswith((".py", ".cpp")) and "tests/" in name}


def test_names_are_seen():
    assert len(PATHS) >= 50 and len(TESTS) >= 25


@pytest.mark.parametrize("line, path", PATHS)
def test_path_is_in_the_tree(line, path):
    assert path in tracked_files() or any(one.startswith(f"{path}/") for one in tracked_files())


@pytest.mark.parametrize("line, name", TESTS)
def test_test_exists(line, name, sources_of_tests):
    if name.endswith((".py", ".cpp")):
        assert any(path.endswith(f"/{name}") for path in sources_of_tests)
    else:
        pattern = re.compile(rf"^def {re.escape(name)}\w*\(", re.MULTILINE)
        assert any(pattern.search(text) for text in sources_of_tests.values())
