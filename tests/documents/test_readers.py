"""Every document names its readers and is complete; versions match the tree."""

import re

import pytest

from .markdown import ROOT, documents

GUIDES = sorted(name for name in documents() if name.startswith("docs/"))
READERS = "administrators|developers|maintainers|security reviewers"


def tree_version():
    return re.search(r"project\(KydLogUploader VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text("utf-8"))[1]


@pytest.mark.parametrize("name", GUIDES)
def test_first_paragraph_names_the_readers(name):
    first = documents()[name].first_paragraph()
    assert re.search(rf"\bfor ({READERS})\b", first), (
        f'the first paragraph must contain "for ..." with one of {READERS}; it is: {first}'
    )


@pytest.mark.parametrize("name", sorted(documents()))
def test_document_starts_with_its_only_title(name):
    document = documents()[name]
    assert [one.line for one in document.headings if one.level == 1] == [1]


@pytest.mark.parametrize("name", sorted(documents()))
def test_rows_of_tables_have_as_many_cells_as_their_header(name):
    for line, rows in documents()[name].tables():
        rule = rows[1] if len(rows) > 1 else []
        assert rule and all(re.fullmatch(":?-+:?", cell) for cell in rule), f"line {line}: not a table"
        wrong = [row for row in rows if len(row) != len(rows[0])]
        assert not wrong, f"table of line {line}"


def test_history_starts_with_the_version_of_the_tree():
    titles = [one.title for one in documents()["CHANGELOG.md"].headings if one.level == 2]
    released = [title for title in titles if title != "[Unreleased]"]
    assert re.fullmatch(rf"\[{re.escape(tree_version())}\] - \d{{4}}-\d\d-\d\d", released[0])


def test_packages_are_named_with_the_version_of_the_tree():
    found = [match for document in documents().values()
             for match in re.findall(r"(?i)\bkydloguploader[-_](\d+(?:\.\d+)+)", "\n".join(document.lines))]
    assert found and set(found) == {tree_version()}
