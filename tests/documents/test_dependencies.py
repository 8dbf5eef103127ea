"""The documents describe the folders' dependencies as they are in the build files and includes."""

import re

import pytest

from .markdown import ROOT

DOCUMENTS = ("README.md", "docs/maintainer-guide.md")
_LINE = re.compile(r"Dependencies point one way:\s+`([^`]+)`")
_COMPANION_LINE = re.compile(r"headers in `companion/`, which (.*?) include")
_STATUS_LINE = re.compile(r"`status` is separate: it links ([^.]*?), and takes")


def layers_of(line):
    """Returns the layers from top to bottom; folders separated by commas share a layer."""
    return [layer.split(", ") for layer in line.split(" → ")]


def told():
    return {name: match[1] for name in DOCUMENTS
            if (match := _LINE.search((ROOT / name).read_text("utf-8")))}


def linked_by(folder):
    """Returns the folders whose libraries this folder's library links."""
    text = (ROOT / folder / "CMakeLists.txt").read_text("utf-8")
    links = re.findall(rf"target_link_libraries\(kyd_{folder}\b([^)]*)\)", text)
    return {name for link in links for name in re.findall(r"\bkyd_(\w+)", link)}


def included_by(folder):
    found = set()
    for path in (ROOT / folder).iterdir():
        if path.suffix in (".cpp", ".h"):
            found |= set(re.findall(r'^#include "(\w+)/', path.read_text("utf-8"), re.MULTILINE))
    return found - {folder}


def test_the_documents_agree():
    assert told()
    assert len(set(told().values())) == 1


@pytest.mark.parametrize("line", sorted(set(told().values())))
def test_every_folder_uses_only_lower_layers(line):
    layers = layers_of(line)
    folders = [folder for layer in layers for folder in layer]
    for place, layer in enumerate(layers):
        below = {folder for lower in layers[place + 1:] for folder in lower}
        for folder in layer:
            used = (linked_by(folder) | included_by(folder)) & set(folders)
            assert used <= below, f"{folder} uses {used - below}"


@pytest.mark.parametrize("line", sorted(set(told().values())))
def test_every_arrow_is_a_link_of_the_build(line):
    layers = layers_of(line)
    for upper, lower in zip(layers, layers[1:]):
        for folder in upper:
            assert set(lower) <= linked_by(folder), f"{folder} does not link all of {lower}"


def built_folders():
    text = (ROOT / "CMakeLists.txt").read_text("utf-8")
    return set(re.findall(r"^add_subdirectory\((\w+)\)", text, re.MULTILINE)) - {"companion"}


def test_every_folder_of_the_program_has_its_place():
    for line in told().values():
        placed = {folder for layer in layers_of(line) for folder in layer}
        assert built_folders() - {"status"} == placed


def test_the_status_tool_links_what_the_documents_say():
    lines = [match[1] for name in DOCUMENTS
             if (match := _STATUS_LINE.search((ROOT / name).read_text("utf-8")))]
    assert lines
    for line in lines:
        assert set(re.findall(r"`(\w+)`", line)) == linked_by("status")


def test_the_folders_that_include_the_closed_libraries_contracts_are_named():
    including = {folder for folder in built_folders() if "companion" in included_by(folder)}
    for name in DOCUMENTS:
        match = _COMPANION_LINE.search((ROOT / name).read_text("utf-8"))
        assert match, name
        assert set(re.findall(r"`(\w+)`", match[1])) == including
