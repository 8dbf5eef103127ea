"""An unusable Windows SDK is reported in one line, before anything is built."""

import os
import shutil
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
PARTS = (
    "crt/include", "crt/lib/x86_64", "sdk/include/ucrt", "sdk/include/um", "sdk/include/shared",
    "sdk/lib/ucrt/x86_64", "sdk/lib/um/x86_64",
)


def run(*command, sdk=None):
    environment = {name: value for name, value in os.environ.items() if name != "KYD_WINDOWS_SDK"}
    if sdk is not None:
        environment["KYD_WINDOWS_SDK"] = os.fspath(sdk)
    return subprocess.run(
        command, env=environment, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60, check=False
    )


@pytest.fixture
def sdk(tmp_path):
    folder = tmp_path / "sdk"
    for part in PARTS:
        (folder / part).mkdir(parents=True)
    return folder


def expect_one_line(finished, line):
    assert finished.returncode != 0
    assert (finished.stdout, finished.stderr) == ("", line + "\n")


@pytest.mark.parametrize("command", [["build", "windows-msvc"], ["demo", "--windows-msvc"],
                                     ["test", "--platform", "windows-msvc"], ["test"]])
def test_missing_folder_is_named(tmp_path, command):
    nowhere = tmp_path / "nowhere"
    expect_one_line(run(ROOT / "dev", *command, sdk=nowhere),
                    f"Windows SDK: there is no folder {nowhere} (KYD_WINDOWS_SDK)")


@pytest.mark.parametrize("part", PARTS)
def test_folder_of_another_layout_is_named_with_the_missing_part(sdk, part):
    shutil.rmtree(sdk / part)
    expect_one_line(run(ROOT / "dev", "build", "windows-msvc", sdk=sdk),
                    f"Windows SDK: {sdk} has no {part}, so it is not what 'xwin splat' writes (KYD_WINDOWS_SDK)")


def test_without_sdk_and_kit_the_variable_is_named(tmp_path):
    script = tmp_path / "tree/cmake/windows-sdk"
    script.parent.mkdir(parents=True)
    shutil.copy2(ROOT / "cmake/windows-sdk", script)
    expect_one_line(run(script), "Windows SDK: KYD_WINDOWS_SDK must name a folder that 'xwin splat' has written")


def test_folder_of_the_right_layout_is_used(sdk):
    finished = run(ROOT / "cmake/windows-sdk", sdk=sdk)
    assert (finished.returncode, finished.stdout, finished.stderr) == (0, f"{sdk}\n", "")


def test_cmake_alone_stops_as_well(tmp_path):
    nowhere = tmp_path / "nowhere"
    finished = run("cmake", "-S", ROOT, "-B", tmp_path / "build", "-G", "Ninja",
                   "--toolchain", ROOT / "cmake/clang-cl.cmake", sdk=nowhere)
    assert finished.returncode != 0
    assert f"there is no folder {nowhere}" in finished.stderr
