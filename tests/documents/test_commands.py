"""Every command in a document is run, or checked, or listed as one that cannot be run."""

import pytest

from . import commands
from .markdown import ROOT, documents, tracked_files

SHOWN = commands.shown_commands()
MENTIONED = commands.mentioned_commands()


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


@pytest.mark.parametrize("command", MENTIONED, ids=str)
def test_mentioned_command_works(command, place):
    commands.judge(command.text, place)


def test_exceptions_are_needed():
    texts = {command.text for command in (*SHOWN, *MENTIONED)}
    assert set(commands.RUN_ELSEWHERE) | set(commands.SHOWN_ONLY) <= texts
    assert not set(commands.RUN_ELSEWHERE) & set(commands.SHOWN_ONLY)
    spans = {text.split(" ")[0] for document in documents().values() for _, text in document.code_spans() if " " in text}
    assert commands.NO_COMMANDS <= spans


@pytest.mark.parametrize("text", commands.RUN_ELSEWHERE)
def test_command_is_run_where_the_list_says(text):
    name, piece = commands.RUN_ELSEWHERE[text]
    assert name in tracked_files() and piece in (ROOT / name).read_text("utf-8")


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
        "systemctl --fialed",
        "dpkg -x",
        "tests/other_debian buster ./dev test",
        "tests/other_debian trixie ./dev tset",
    ],
)
def test_wrong_commands_are_noticed(text, place):
    with pytest.raises(AssertionError):
        commands.judge(text, place)
