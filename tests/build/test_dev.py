"""./dev installs missing packages, and waits while another package manager is active."""

import os
import platform
import re
import shutil
import subprocess

import pytest

from .conftest import ROOT
from .test_windows_sdk import PARTS as SDK_PARTS

SYSTEM = platform.freedesktop_os_release()
RELEASE = (SYSTEM["ID"], SYSTEM.get("VERSION_ID"))

# All packages except the named one are installed.
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
    assert done.returncode != 0  # apt-get fails here, so nothing is built
    assert "Installing: ninja-build" in done.stdout
    update, install = calls
    assert update.endswith("update")
    assert "-o DPkg::Lock::Timeout=600" in install and install.endswith("ninja-build")


def test_newer_boost_is_left_alone(installing, a_machine):
    a_machine.tool("dpkg-query", """case " $* " in
      *" ninja-build "*) exit 1 ;;
      *" libboost1.88-dev "*) echo "install ok installed"; exit 1 ;; # the answer for two packages, one of them unknown
      *boost*) exit 1 ;;
      *) echo "install ok installed" ;;
    esac""")
    done, _ = installing("exit 0", "build", "linux")
    assert done.stdout == "Installing: ninja-build\n"


def test_locked_lists_are_waited_for(installing, tmp_path):
    mark = tmp_path / "was-locked"
    update = f'[ -f {mark} ] || {{ touch {mark}; echo "{BUSY}" >&2; exit 100; }}'
    done, calls = installing(update, "build", "linux")
    assert [call.split()[1] for call in calls] == ["update", "update", "install"]
    assert BUSY not in done.stderr


def test_unavailable_lists_are_not_waited_for(installing):
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


def test_setup_installs_what_all_its_options_need(a_machine):
    a_machine.tool("id", "echo 0")
    a_machine.tool("dpkg-query", QUERY.format(missing="chromium | prometheus"))
    a_machine.tool("apt-get", 'case " $* " in *" install "*) exit 100 ;; esac')
    for options, packages in {
        ("--browser",): "chromium", ("--monitoring",): "prometheus", ("--browser", "--monitoring"): "chromium prometheus",
    }.items():
        done = a_machine.run(ROOT / "dev", "setup", *options)
        assert (done.returncode, done.stdout) == (100, f"Installing: {packages}\n")
    done = a_machine.run(ROOT / "dev", "setup", "--browser", "--chromium")
    assert (done.returncode, done.stdout) == (64, "")


def test_unavailable_rest_library_is_reported_in_one_line(a_machine, tmp_path):
    listed = subprocess.run(["git", "ls-files", "-z", "*CMake*", "*.cmake", "cmake", "dev"], cwd=ROOT,
                            capture_output=True, text=True, check=True).stdout
    tree = tmp_path / "tree"
    for name in filter(None, listed.split("\0")):
        (tree / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(ROOT / name, tree / name)
    a_machine.tool("dpkg-query", "echo install ok installed")
    a_machine.tool("apt-get", 'case " $* " in *" source "*) : >cpprest_2.10.99.orig.tar.gz ;; esac')
    done = a_machine.run(tree / "dev", "build", "linux")
    assert (done.returncode, done.stderr) == (1, "")
    configuring, refusal = done.stdout.splitlines()
    assert configuring.startswith("Configuring linux")
    assert refusal.startswith("cpprestsdk: version 2.10.99 of this machine's release is not supported; put ")


@pytest.fixture
def tests_started(a_machine, tmp_path):
    """Runs `./dev test` with tools that build nothing; returns the platforms built, the tests' arguments, and
    the messages about platforms left out."""
    tree = tmp_path / "tree"
    for name in ("dev", "cmake/windows-sdk"):
        (tree / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(ROOT / name, tree / name)
    (tree / "tests").mkdir()
    (tree / "tests/run.py").write_text("import sys\nprint('tests:', *sys.argv[1:])\n", "ascii")
    a_machine.tool("dpkg-query", "echo install ok installed")
    a_machine.tool("cmake", "exit 0")

    def run(*arguments, **variables):
        done = a_machine.run(tree / "dev", "test", *arguments, **{"KYD_WINDOWS_SDK": "", **variables})
        assert done.returncode == 0, done.stderr
        built = re.findall(r"^Building (\S+)$", done.stdout, re.M)
        left_out = re.findall(r"^Leaving .*$", done.stdout, re.M)
        return built, done.stdout.splitlines()[-1].removeprefix("tests:").split(), left_out

    return run


def test_tests_include_visual_cpps_interface_when_there_is_an_sdk(tests_started, tmp_path):
    assert tests_started() == (["linux", "windows"], [], [])
    sdk = tmp_path / "sdk"
    for part in SDK_PARTS:
        (sdk / part).mkdir(parents=True)
    every = ["linux", "windows", "windows-msvc"]
    options = [word for platform in every for word in ("--platform", platform)]
    assert tests_started(KYD_WINDOWS_SDK=os.fspath(sdk)) == (every, options, [])
    assert tests_started("--unit", KYD_WINDOWS_SDK=os.fspath(sdk)) == (every, [*options, "--unit"], [])
    # An explicit platform replaces the default.
    only = ["--platform", "linux"]
    assert tests_started(*only, KYD_WINDOWS_SDK=os.fspath(sdk)) == (["linux"], only, [])
    two = ["--platform=windows", "--unit", "--platform", "windows-msvc", "--", "--platform", "linux"]
    assert tests_started(*two, KYD_WINDOWS_SDK=os.fspath(sdk)) == (every, two, [])


def test_stand_in_sdk_is_used_only_on_its_release(tests_started, tmp_path):
    kit = tmp_path / "shared/windows-sdk"
    kit.mkdir(parents=True)
    (kit / "make").write_text(
        "#!/bin/sh\ncd \"$1\" && mkdir -p " + " ".join(SDK_PARTS) + "\n", "ascii")
    (kit / "make").chmod(0o755)
    built, _, left_out = tests_started()
    if RELEASE == ("debian", "12"):
        assert (built, left_out) == (["linux", "windows", "windows-msvc"], [])
        return
    assert (built, left_out) == (
        ["linux", "windows"],
        ["Leaving windows-msvc out: the stand-in SDK is made on Debian 12 only (KYD_WINDOWS_SDK names another)"],
    )


@pytest.mark.parametrize("command", [
    ["build", "macos"],
    ["build", "linux", "release-linux"],
    ["test", "--platform", "macos"],
    ["test", "--platform=linux", "--unit", "--platform=msvc"],
], ids=" ".join)
def test_unknown_platform_is_reported_in_one_line_before_anything_starts(a_machine, command):
    started = a_machine.tools / "started"
    for tool in ("dpkg-query", "apt-get", "cmake"):
        a_machine.tool(tool, f"echo {tool} >>{started}; exit 1")
    done = a_machine.run(ROOT / "dev", *command)
    name = command[-1].removeprefix("--platform=")
    assert (done.returncode, done.stdout) == (64, "")
    assert done.stderr == f"platform {name} is not known; known are: linux windows windows-msvc\n"
    assert not started.exists()
