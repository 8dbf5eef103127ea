"""Packages of programs with Visual C++'s ABI, which were built elsewhere."""

import json
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from .conftest import ROOT, files_below, tool
from .test_contents import licences, without_licences
from .test_msi import DONE, UPGRADE_CODE, Tables
from .windows_machine import that_replaces_under_wine

PROGRAMS = ("KydLogUploader.exe", "KydUploadStatus.exe")
# Built by clang-cl with the real SDK or a stand-in.
BUILDS = [ROOT / "build" / name / "bin" for name in ("release-windows-msvc", "windows-msvc")]
MINGW_BUILD = ROOT / "build/release-windows/bin"
PURPOSE = "In Visual C++'s binary interface, for closed libraries that Visual Studio has built"
LIBRARIES = {
    "boost-exception": ("1.83.0", "BSL-1.0"), "cli11": ("2.4.2", "BSD-3-Clause"), "cpprestsdk": ("2.10.19#1", "MIT"),
    "fmt": ("10.2.1", "MIT"), "rapidjson": ("2023-07-17", "MIT"), "utfcpp": ("4.0.5", "BSL-1.0"),
}
HELPERS = ("vcpkg-cmake", "vcpkg-cmake-config", "gtest", "boost-cmake", "boost-headers")


def rest_patches():
    return sorted(path.name for path in (ROOT / "cmake/cpprestsdk").glob("[0-9]*.patch"))


def write_port(share, name, version, licence, files=()):
    """Creates the files that vcpkg keeps for a library."""
    folder = share / name
    folder.mkdir(parents=True)
    (folder / "copyright").write_text(f"The licence of {name}\n", "ascii")
    packages = [
        {"name": name, "SPDXID": "SPDXRef-port", "versionInfo": version, "homepage": f"https://example.com/{name}",
         "downloadLocation": "NOASSERTION", "licenseConcluded": licence, "licenseDeclared": "NOASSERTION"},
        {"name": f"{name}:x64-windows", "SPDXID": "SPDXRef-binary", "versionInfo": "0" * 64,
         "licenseConcluded": licence},
    ]
    listed = [{"fileName": f"./{file}", "SPDXID": f"SPDXRef-file-{number}"} for number, file in enumerate(files)]
    (folder / "vcpkg.spdx.json").write_text(json.dumps(
        {"spdxVersion": "SPDX-2.2", "SPDXID": "SPDXRef-DOCUMENT", "packages": packages, "files": listed}), "utf-8")


@pytest.fixture(scope="session")
def artifact(tmp_path_factory):
    """The result of a build with Visual Studio and vcpkg."""
    build = next((folder for folder in BUILDS if all((folder / name).exists() for name in PROGRAMS)), None)
    if build is None:
        pytest.skip("no programs with this ABI: run './dev build windows-msvc'")
    folder = tmp_path_factory.mktemp("artifact")
    for name in PROGRAMS:
        for file in (build / name, (build / name).with_suffix(".pdb")):
            shutil.copyfile(file, folder / file.name)
    for name, (version, licence) in LIBRARIES.items():
        files = ["portfile.cmake", "vcpkg.json"] + (rest_patches() if name == "cpprestsdk" else [])
        write_port(folder / "share", name, version, licence, files)
    for name in HELPERS:
        write_port(folder / "share", name, "1", "MIT")
    return folder


@pytest.fixture(scope="session")
def packages(artifact, tmp_path_factory):
    """A folder with the packages."""
    import bill
    import project
    import visual_cpp
    import windows

    folder = tmp_path_factory.mktemp("dist-msvc")
    visual_cpp.check(artifact, windows.PROGRAMS.values(), stand_in_allowed=True)
    products = windows.build_visual_cpp(artifact, folder, project.commit_time(), None)
    for product, components in products.items():
        bill.write(folder / f"{product}.cdx.json", product, components, windows.purposes()[product])
    return folder


@pytest.fixture(scope="session")
def name(version):
    return f"KydLogUploader-{version}-windows-x64-msvc"


@pytest.fixture(scope="session")
def package(packages, name):
    return packages / f"{name}.msi"


@pytest.fixture(scope="session")
def unpacked(packages, name, tmp_path_factory):
    folder = tmp_path_factory.mktemp("unpacked")
    for kind in (name, f"{name}-symbols"):
        shutil.unpack_archive(packages / f"{kind}.zip", folder)
    return folder


# The required content of a folder.


def refusal(folder, *options):
    """Returns the line with which the command refuses a folder, before it builds anything."""
    done = subprocess.run(
        [sys.executable, ROOT / "packaging/build.py", "--windows-programs", folder, "--allow-changes", *options],
        capture_output=True, text=True, timeout=60, check=False,
    )
    assert (done.returncode, done.stdout) == (1, "")
    (line,) = done.stderr.splitlines()
    return line.removeprefix("package: ")


@pytest.fixture
def copied(artifact, tmp_path):
    return shutil.copytree(artifact, tmp_path / "artifact")


@pytest.mark.parametrize("file", [*PROGRAMS, "KydUploadStatus.pdb"])
def test_missing_file_is_named(copied, file):
    (copied / file).unlink()
    assert refusal(copied) == f"{copied / file} is missing"


def test_missing_folder_is_refused(tmp_path):
    assert refusal(tmp_path / "no") == f"{tmp_path / 'no/KydLogUploader.exe'} is missing"


def test_program_in_the_other_interface_is_refused(copied):
    program = copied / "KydUploadStatus.exe"
    shutil.copyfile(MINGW_BUILD / program.name, program)
    assert refusal(copied) == (
        f"{program} is not in Visual C++'s binary interface: it does not need vcruntime140.dll")


@pytest.mark.parametrize("content", [b"", b"MZ", b"no program at all", "linux"])
def test_file_that_is_not_a_windows_program_is_refused(copied, content):
    program = copied / "KydLogUploader.exe"
    if content == "linux":
        content = Path("/usr/bin/env").read_bytes()
    program.write_bytes(content)
    assert refusal(copied) == f"{program} is not a program for x86-64 Windows"


def test_program_of_another_version_is_refused(copied, version):
    program = copied / "KydLogUploader.exe"
    content = program.read_bytes()
    text = f"{version} (msvc)".encode("utf-16-le")
    assert content.count(text) == 1
    program.write_bytes(content.replace(text, "0.9.9 (msvc)".encode("utf-16-le")))
    assert refusal(copied) == f"{program} has version 0.9.9 (msvc), not {version} (msvc)"


def test_program_built_with_a_stand_in_sdk_is_for_tests_only(copied):
    import project
    import visual_cpp

    program = copied / "KydLogUploader.exe"
    of_a_stand_in = "ucrtbase.dll" in tool("x86_64-w64-mingw32-objdump", "-p", program).lower()
    if not of_a_stand_in:
        visual_cpp.check(copied, PROGRAMS, stand_in_allowed=False)
        return
    with pytest.raises(project.Failure, match="built with a stand-in for the Windows SDK, which is only for tests"):
        visual_cpp.check(copied, PROGRAMS, stand_in_allowed=False)


def test_folder_without_a_list_of_libraries_is_refused(copied):
    shutil.rmtree(copied / "share")
    assert refusal(copied) == f"{copied / 'share'} has no */vcpkg.spdx.json, so nothing says what is linked in"


def test_library_without_its_licence_is_refused(copied):
    text = copied / "share/fmt/copyright"
    text.unlink()
    assert refusal(copied) == f"{text} is missing"


def test_library_without_a_licence_name_is_refused(copied):
    write_port(copied / "share", "unknown", "1", "NOASSERTION")
    assert refusal(copied) == f"{copied / 'share/unknown/vcpkg.spdx.json'} names no licence"


@pytest.mark.parametrize("content", ["", "[]", "{}", '{"packages": [], "files": []}'])
def test_bill_that_cannot_be_read_is_refused(copied, content):
    bill = copied / "share/fmt/vcpkg.spdx.json"
    bill.write_text(content, "ascii")
    assert refusal(copied) == f"{bill} is not what vcpkg writes"


@pytest.mark.parametrize("kept", [0, -1])
def test_rest_library_without_our_patches_is_refused(copied, kept):
    shutil.rmtree(copied / "share/cpprestsdk")
    write_port(copied / "share", "cpprestsdk", "2.10.19", "MIT", rest_patches()[:kept])
    assert refusal(copied).endswith("the REST library was not built with the patches of cmake/cpprestsdk")


# The content of the packages.


def test_all_packages_exist(packages, name):
    assert files_below(packages) == {f"{name}.zip", f"{name}-symbols.zip", f"{name}.msi", f"{name}.cdx.json"}


def test_archive_has_the_given_programs(unpacked, name, artifact, archives):
    names = files_below(unpacked / name)
    assert without_licences(names) == without_licences(files_below(archives.product))
    for program in PROGRAMS:
        assert (unpacked / name / program).read_bytes() == (artifact / program).read_bytes()
    own = licences(names)
    assert own >= set(LIBRARIES) and not own & set(HELPERS)
    # The installer's actions are inside the package.
    assert "gcc-mingw-w64-x86-64-posix" in own


def test_symbols_are_those_of_the_programs(unpacked, name, artifact):
    symbols = unpacked / f"{name}-symbols"
    assert files_below(symbols) == {"KydLogUploader.pdb", "KydUploadStatus.pdb", "KydSetupActions.dll.debug"}
    for database in ("KydLogUploader.pdb", "KydUploadStatus.pdb"):
        assert (symbols / database).read_bytes() == (artifact / database).read_bytes()


def test_bill_lists_the_libraries_and_the_purpose(packages, name):
    bill = json.loads((packages / f"{name}.cdx.json").read_text("utf-8"))
    root = bill["metadata"]["component"]
    assert (root["name"], root["description"]) == (name, PURPOSE)
    found = {component["name"]: component for component in bill["components"]}
    assert set(found) >= set(LIBRARIES) and not set(found) & set(HELPERS)
    assert list(found) == sorted(found)
    for library, (version, licence) in LIBRARIES.items():
        assert (found[library]["version"], found[library]["licenses"]) == (version, [{"license": {"id": licence}}])
    assert found["cpprestsdk"]["purl"] == "pkg:generic/cpprestsdk@2.10.19%231"
    patches = found["cpprestsdk"]["pedigree"]["patches"]
    assert [patch["diff"]["url"] for patch in patches] == [f"cmake/cpprestsdk/{name}" for name in rest_patches()]


def test_same_commit_and_programs_give_the_same_bytes(packages, artifact, tmp_path):
    import project
    import windows

    windows.build_visual_cpp(artifact, tmp_path, project.commit_time(), None)
    for name in files_below(tmp_path):
        assert (tmp_path / name).read_bytes() == (packages / name).read_bytes(), name


def test_tables_name_the_purpose_of_the_package(package, dist, version):
    ours = Tables(package)
    others = Tables(dist / f"KydLogUploader-{version}-windows-x64-mingw.msi")
    assert ours.properties["ARPCOMMENTS"] == PURPOSE
    assert others.properties["ARPCOMMENTS"].startswith("Built with MinGW-w64, for the stand-in libraries")
    assert f"Comments: {PURPOSE}" in tool("msiinfo", "suminfo", package)


def test_tables_allow_only_one_of_both_packages(package, dist, version):
    ours = Tables(package)
    others = Tables(dist / f"KydLogUploader-{version}-windows-x64-mingw.msi")
    for tables in (ours, others):
        assert tables.properties["UpgradeCode"] == UPGRADE_CODE
        (row,) = (row for row in tables["Upgrade"] if row["ActionProperty"] == "OLDER")
        # 256 and 512: the range includes the lowest and the highest version.
        assert (row["UpgradeCode"], row["VersionMax"], row["Attributes"]) == (UPGRADE_CODE, version, "768")
        sequence = tables.sequence()
        assert sequence["FindRelatedProducts"] < sequence["RemoveExistingProducts"] < sequence["InstallFiles"]
    assert ours.properties["ProductCode"] != others.properties["ProductCode"]
    # The same path is the same component in all packages.
    components = [{row["Component"]: row["ComponentId"] for row in tables["Component"]} for tables in (ours, others)]
    common = components[0].keys() & components[1].keys()
    assert {f"c_{program}" for program in PROGRAMS} <= common
    assert all(components[0][name] == components[1][name] for name in common)


# On a machine: the packages in dist/ if they were made of programs that were built elsewhere.


@pytest.fixture(scope="session")
def shipped(dist, name, request):
    """The folder of the packages."""
    return dist if (dist / f"{name}.msi").exists() else request.getfixturevalue("packages")


@pytest.fixture
def machine(windows):
    windows.clean()
    yield windows
    windows.clean()


def test_installed_programs_run(machine, shipped, name, version):
    assert machine.install(shipped / f"{name}.msi") == DONE
    code, text = machine.run(machine.folder / "KydUploadStatus.exe", "--version")
    assert (code, version in text) == (0, True)


@pytest.mark.parametrize("first", ["mingw", "msvc"])
def test_only_one_of_both_packages_is_installed(machine, shipped, dist, version, name, archives, first, tmp_path):
    shutil.unpack_archive(shipped / f"{name}.zip", tmp_path)
    both = {
        "mingw": (dist / f"KydLogUploader-{version}-windows-x64-mingw.msi", archives.product),
        "msvc": (shipped / f"{name}.msi", tmp_path / name),
    }
    (other, _), (last, files) = both.pop(first), *both.values()
    assert machine.install(other, "TENANT=tenant.example.com", r"LOGDIR=C:\KydLog") == DONE
    task = machine.task
    assert machine.install(that_replaces_under_wine(last, tmp_path)) == DONE
    assert {name: (machine.folder / name).read_bytes() for name in files_below(machine.folder)} == {
        name: (files / name).read_bytes() for name in files_below(files)}
    (entry,) = machine.entries()
    purposes = {"mingw": "Built with MinGW-w64", "msvc": "In Visual C++'s binary interface"}
    assert entry["Comments"].startswith(purposes[next(iter(both))])
    assert machine.task == task
