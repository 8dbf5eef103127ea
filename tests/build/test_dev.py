"""./dev installs what is missing, and waits while another package manager is at work."""

import pytest

from .conftest import ROOT

# Every package but the named one is there.
QUERY = 'case "${{@: -1}}" in {missing}) exit 1 ;; *) echo "install ok installed" ;; esac'
BUSY = "E: Could not get lock /var/lib/apt/lists/lock. It is held by process 1"


@pytest.fixture
def installing(a_machine):
    a_machine.tool("id", "echo 0")
    a_machine.tool("dpkg-query", QUERY.format(missing="ninja-build"))

    def run(update, *command):
        calls = a_machine.tools / "calls"
        a_machine.tool("apt-get", f'echo "$*" >>{calls}\ncase " $* " in *" update "*) {update} ;; *) exit 100 ;; esac')
        done = a_machine.run(ROOT / "dev", *command)
        return done, calls.read_text("utf-8").splitlines()

    return run


def test_missing_packages_are_installed_when_the_lock_is_free(installing):
    done, calls = installing("exit 0", "build", "linux")
    assert done.returncode != 0  # this installation fails, so that nothing is built
    assert "Installing: ninja-build" in done.stdout
    update, install = calls
    assert update.endswith("update")
    assert "-o DPkg::Lock::Timeout=600" in install and install.endswith("ninja-build")


def test_lists_that_are_locked_are_waited_for(installing, tmp_path):
    mark = tmp_path / "was-locked"
    update = f'[ -f {mark} ] || {{ touch {mark}; echo "{BUSY}" >&2; exit 100; }}'
    done, calls = installing(update, "build", "linux")
    assert [call.split()[1] for call in calls] == ["update", "update", "install"]
    assert BUSY not in done.stderr


def test_lists_that_cannot_be_had_are_no_reason_to_wait(installing):
    done, calls = installing('echo "E: The repository is not signed" >&2; exit 100', "build", "linux")
    assert done.returncode != 0
    assert "E: The repository is not signed" in done.stderr
    assert len(calls) == 1


def test_demo_needs_no_test_framework(a_machine):
    a_machine.tool("id", "echo 0")
    a_machine.tool("dpkg-query", "exit 1")
    a_machine.tool("apt-get", "case \" $* \" in *\" install \"*) exit 100 ;; esac")
    (line,) = [
        line for line in a_machine.run(ROOT / "dev", "demo").stdout.splitlines() if line.startswith("Installing: ")
    ]
    packages = set(line.removeprefix("Installing: ").split())
    assert {"g++", "cmake", "libboost-dev"} <= packages
    assert not packages & {"googletest", "python3-pytest", "nginx-light", "clang-format-14", "wine64"}
