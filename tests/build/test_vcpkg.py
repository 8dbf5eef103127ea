"""vcpkg's port builds the REST library as ./build does, with every patch."""

import hashlib
import json
import os
import re
import subprocess
from pathlib import Path

import pytest

from .conftest import ROOT

PORT = ROOT / "cmake/cpprestsdk"
BUILD = (PORT / "build").read_text("utf-8")
CACHE = Path(os.environ.get("KYD_CACHE") or
             Path(os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache") / "kydloguploader")

# The functions of vcpkg that the port calls; they print their arguments.
FUNCTIONS = r"""
macro(tell function)
  foreach(word ${ARGN})
    message(STATUS "${function} ${word}")
  endforeach()
endmacro()
function(vcpkg_download_distfile variable)
  tell(download ${ARGN})
  set(${variable} /archive PARENT_SCOPE)
endfunction()
function(vcpkg_extract_source_archive variable)
  tell(extract ${ARGN})
  set(${variable} /source PARENT_SCOPE)
endfunction()
function(vcpkg_cmake_configure)
  tell(configure ${ARGN})
endfunction()
function(vcpkg_cmake_install)
  tell(install called)
endfunction()
function(vcpkg_cmake_config_fixup)
  tell(fixup called)
endfunction()
function(vcpkg_install_copyright)
  tell(copyright ${ARGN})
endfunction()
include(${CURRENT_PORT_DIR}/portfile.cmake)
"""


def manifest(folder):
    return json.loads((folder / "vcpkg.json").read_text("utf-8"))


@pytest.fixture(scope="module")
def told(tmp_path_factory):
    """Returns a function that maps each vcpkg function to the arguments of its calls."""
    folder = tmp_path_factory.mktemp("port")
    (folder / "run.cmake").write_text(FUNCTIONS, "utf-8")
    done = subprocess.run(
        ["cmake", f"-DCURRENT_PORT_DIR={PORT}", f"-DVERSION={manifest(PORT)['version']}",
         f"-DCURRENT_PACKAGES_DIR={folder}/packages", "-P", folder / "run.cmake"],
        stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60, check=True,
    )
    words = [line.removeprefix("-- ").split(" ", 1) for line in done.stdout.splitlines()]
    return lambda function: [word for name, word in words if name == function]


def test_every_patch_is_applied_in_order(told):
    patches = sorted(os.fspath(path) for path in PORT.glob("[0-9]*.patch"))
    assert patches
    assert told("extract") == ["ARCHIVE", "/archive", "PATCHES", *patches]


def test_list_of_sources_is_the_projects_own(told):
    assert told("configure") == ["SOURCE_PATH", os.fspath(PORT), "OPTIONS", "-DSOURCE_DIR=/source"]
    assert told("install") == told("fixup") == ["called"]


def test_version_is_the_newest_that_the_patches_fit():
    (versions,) = re.findall(r'^readonly versions="(\S+)', BUILD, re.M)
    assert manifest(PORT)["version"] == versions


def test_archive_is_the_one_that_the_build_uses(told):
    version = manifest(PORT)["version"]
    archive = CACHE / f"cpprestsdk/source/cpprest_{version}.orig.tar.gz"
    if not archive.exists():
        pytest.skip(f"this release builds another version than {version}")
    words = told("download")
    assert words[words.index("FILENAME") + 1] == archive.name
    assert words[words.index("SHA512") + 1] == hashlib.sha512(archive.read_bytes()).hexdigest()


def test_release_build_copies_vcpkgs_licences_to_its_programs(tmp_path):
    port = tmp_path / "installed/a-triplet/share/fmt"
    port.mkdir(parents=True)
    for name in ("vcpkg.spdx.json", "copyright", "fmt-config.cmake"):
        (port / name).write_text(name, "ascii")
    (tmp_path / "CMakeLists.txt").write_text(
        f"cmake_minimum_required(VERSION 3.25)\nproject(release LANGUAGES NONE)\nset(MSVC ON)\n"
        f"include({ROOT}/cmake/Reproducible.cmake)\n", "utf-8")
    subprocess.run(
        ["cmake", "-S", tmp_path, "-B", tmp_path / "build", "-DKYD_REPRODUCIBLE=ON",
         f"-DVCPKG_INSTALLED_DIR={tmp_path}/installed", "-DVCPKG_TARGET_TRIPLET=a-triplet"],
        stdin=subprocess.DEVNULL, capture_output=True, timeout=60, check=True,
    )
    copied = [path for path in (tmp_path / "build/bin").rglob("*") if path.is_file()]
    assert sorted(os.fspath(path.relative_to(tmp_path / "build/bin")) for path in copied) == [
        "share/fmt/copyright", "share/fmt/vcpkg.spdx.json"]


def test_program_uses_this_port():
    (folder,) = manifest(ROOT)["vcpkg-configuration"]["overlay-ports"]
    assert (ROOT / folder).resolve() == PORT
    assert manifest(PORT)["name"] in manifest(ROOT)["dependencies"]


def test_version_is_the_projects():
    (version,) = re.findall(r"^project\(\w+ VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text("utf-8"), re.M)
    assert manifest(ROOT)["version"] == version


def conditions(path):
    """Yields each line of a CMake list with the conditions under which it is read."""
    open_blocks = []
    for line in path.read_text("utf-8").splitlines():
        words = line.partition("#")[0].strip()
        if found := re.match(r"(?:else)?if *\((.*)\)$", words):
            if words.startswith("else"):
                open_blocks.pop()
            open_blocks.append(found[1])
        elif words == "else()":
            open_blocks.append(f"NOT ({open_blocks.pop()})")
        elif words == "endif()":
            open_blocks.pop()
        yield words, list(open_blocks)


@pytest.mark.parametrize("path", ["CMakeLists.txt", "cmake/cpprestsdk/CMakeLists.txt"])
def test_visual_cpp_gets_no_options_of_clang(path):
    """clang-cl accepts them as well, so no build with it would find one."""
    clang = 'CMAKE_CXX_COMPILER_ID STREQUAL "Clang"'
    lines = [(words, blocks) for words, blocks in conditions(ROOT / path) if "MSVC" in blocks]
    assert any("/bigobj" in words for words, _ in lines)
    assert [words for words, blocks in lines if clang not in blocks and re.search(r"(?<![\w/:])-[Wfgm]", words)] == []


def test_no_header_includes_itself_where_case_does_not_matter():
    written = [blocks for words, blocks in conditions(PORT / "CMakeLists.txt") if "/headers/" in words]
    assert written and all("NOT CMAKE_HOST_WIN32" in blocks for blocks in written)
