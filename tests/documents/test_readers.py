"""Every document says for whom it is; the history names the version of the tree."""

import re

import pytest

from .markdown import ROOT, documents

GUIDES = sorted(name for name in documents() if name.startswith("docs/"))
READERS = "administrators|developers|maintainers|security reviewers|whoever"


@pytest.mark.parametrize("name", GUIDES)
def test_first_paragraph_says_for_whom_it_is(name):
    first = documents()[name].first_paragraph()
    assert re.search(rf"\bfor ({READERS})\b", first), (
        f'the first paragraph has to say "for ..." with one of {READERS}; it is: {first}'
    )


@pytest.mark.parametrize("name", sorted(documents()))
def test_document_begins_with_its_one_title(name):
    document = documents()[name]
    assert [one.line for one in document.headings if one.level == 1] == [1]


def test_history_begins_with_the_version_of_the_tree():
    version = re.search(r"project\(KydLogUploader VERSION ([\d.]+)",
                        (ROOT / "CMakeLists.txt").read_text("utf-8"))[1]
    titles = [one.title for one in documents()["CHANGELOG.md"].headings if one.level == 2]
    released = [title for title in titles if title != "[Unreleased]"]
    assert re.fullmatch(rf"\[{re.escape(version)}\] - \d{{4}}-\d\d-\d\d", released[0])
