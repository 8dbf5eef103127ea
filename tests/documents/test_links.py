"""Every relative link and anchor in the documents has a target."""

import os
from urllib.parse import unquote

import pytest

from .markdown import ROOT, documents, tracked_files

LINKS = [
    pytest.param(name, link, id=f"{name}:{link.line}: {link.target}")
    for name, document in documents().items() for link in document.links
]


def test_documents_and_their_links_are_found():
    assert {"README.md", "docs/operator-guide.md", "deploy/README.md"} <= set(documents())
    assert len(LINKS) >= 40


@pytest.mark.parametrize("name, link", LINKS)
def test_link_has_a_target(name, link):
    if link.target.startswith("https://"):
        return  # an external link
    assert "://" not in link.target and not link.target.startswith("/"), "relative or https"
    path, _, anchor = unquote(link.target).partition("#")
    target = name
    if path:
        target = os.path.normpath(os.path.join(os.path.dirname(name), path))
        is_folder = any(one.startswith(f"{target}/") for one in tracked_files())
        assert target in tracked_files() or is_folder, f"{target} is not in the tree"
    if anchor:
        assert target in documents(), "an anchor in a file that is not a document"
        assert anchor in documents()[target].anchors, f"{target} has no such heading"


def test_every_document_of_docs_is_linked_from_the_readme():
    linked = {os.path.normpath(link.target.partition("#")[0]) for link in documents()["README.md"].links}
    ours = {name for name in documents() if name.startswith("docs/")}
    assert len(ours) >= 4
    assert ours <= linked
    assert (ROOT / "docs").is_dir()
