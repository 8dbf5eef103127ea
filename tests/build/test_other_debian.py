"""tests/other_debian reports what it cannot do in one line, before it creates anything."""

import shutil

import pytest

from .conftest import ROOT

SCRIPT = ROOT / "tests/other_debian"
# On an unprepared machine, this check comes first.
NO_KEYRING = (
    "other_debian: /usr/share/keyrings/debian-archive-keyring.gpg is missing: install debian-archive-keyring"
)


def refusal(machine, *arguments, **options):
    done = machine.run(SCRIPT, *arguments, **options)
    assert (done.returncode, done.stdout) == (1, "")
    assert not machine.cache.exists()
    (line,) = done.stderr.splitlines()
    return line


@pytest.mark.parametrize("release", ["sid", "bookwor", "bookworm trixie", "../trixie", ""])
def test_unknown_release_is_refused(a_machine, release):
    assert refusal(a_machine, release, "./dev", "test") == (
        f"other_debian: release {release} is not known; known are: bookworm trixie"
    )


@pytest.mark.parametrize("arguments", [(), ("trixie",)])
def test_call_without_a_command_is_refused(a_machine, arguments):
    assert refusal(a_machine, *arguments) == "other_debian: usage: tests/other_debian bookworm|trixie COMMAND..."


def test_ordinary_user_is_refused(a_machine):
    a_machine.tool("id", "echo 1000")
    assert refusal(a_machine, "trixie", "true") == "other_debian: needs root"


def test_machine_without_debootstrap_is_refused(a_machine):
    a_machine.tool("id", "echo 0")
    for name in ("bash", "dirname", "git", "unshare", "chroot", "flock", "apt-get"):
        (a_machine.tools / name).symlink_to(shutil.which(name) or "/bin/true")
    line = refusal(a_machine, "trixie", "true", only_these_tools=True)
    assert line == "other_debian: debootstrap is missing"


def test_missing_windows_sdk_is_refused(a_machine, tmp_path):
    a_machine.tool("id", "echo 0")
    for name in ("debootstrap", "unshare", "chroot"):
        a_machine.tool(name, "echo must not be called; exit 1")
    nowhere = tmp_path / "nowhere"
    assert refusal(a_machine, "trixie", "true", KYD_WINDOWS_SDK=str(nowhere)) in (
        f"other_debian: there is no folder {nowhere} (KYD_WINDOWS_SDK)",
        NO_KEYRING,
    )


def test_machine_without_a_debian_mirror_is_refused(a_machine):
    a_machine.tool("id", "echo 0")
    for name in ("debootstrap", "unshare", "chroot"):
        a_machine.tool(name, "echo must not be called; exit 1")
    a_machine.tool("apt-get", "echo http://example.invalid/packages stable main")
    done = a_machine.run(SCRIPT, "trixie", "true")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr in (
        "other_debian: this machine's apt sources name no Debian mirror\n",
        NO_KEYRING + "\n",
    )
