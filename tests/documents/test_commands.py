"""Every command that a document shows is run, or checked, or known as one that cannot be."""

import pytest

from . import commands
from .markdown import documents

SHOWN = commands.shown_commands()


@pytest.fixture
def place(programs, tmp_path):
    return commands.Place(programs, tmp_path)


def test_commands_are_seen():
    names = {command.document for command in SHOWN}
    assert {"README.md", "docs/status.md", "docs/companion.md", "docs/operator-guide.md"} <= names
    assert len(SHOWN) >= 40


@pytest.mark.parametrize("command", SHOWN, ids=str)
def test_shown_command_works(command, place):
    commands.judge(command.text, place)


@pytest.mark.parametrize("command", commands.mentioned_commands(), ids=str)
def test_mentioned_command_works(command, place):
    commands.judge(command.text, place)


def test_what_is_only_shown_is_shown():
    """The list of exceptions has no more than it needs."""
    assert set(commands.SHOWN_ONLY) <= {command.text for command in SHOWN}
    assert all(commands.SHOWN_ONLY.values())


@pytest.mark.parametrize("name", sorted(documents()))
def test_every_block_says_what_it_holds(name):
    known = (*commands.COMMAND_LANGUAGES, *commands.OTHER_LANGUAGES)
    unknown = [(block.line, block.language) for block in documents()[name].blocks
               if block.language not in known]
    assert not unknown


@pytest.mark.parametrize(
    "text",
    [
        "no-such-program --help",
        "./dev tset",
        "./dev build macos",
        "./dev demo --macos",
        "./dev test --platfrom linux",
        "./dev mutation no-such-mutant",
        "./dev package --chek-reproducible",
        "./dev package --sign CERT.pem KEY.pem [--timestamp URL]",
        "cmake --preset linus",
        "cmake --build --preset linus",
        "cmake --preset linux && cmake --build --preset linus",
        "cmake -DKYD_NO_SUCH_OPTION=ON",
        "KydUploadStatus LogDir --no-such-option",
        "KydUploadStatus <LogDir> [--days N]",
        "KydLogUploader <Tenant>",
        "KydLogUploader <Tenant> <LogDir> [param_force_flush]",
        "printf '%s' nonsense | keyward-seal LogDir/LogWork/alice/UserData.dat",
        "/usr/bin/python3 -m pytest tests/e2e --no-such-option",
        "install -D -m 644 on.reg /etc/keyward/other.reg",
        "install -D -m 644 off.reg /etc/keyward/registry.reg",
    ],
)
def test_wrong_commands_are_noticed(text, place):
    with pytest.raises(AssertionError):
        commands.judge(text, place)
