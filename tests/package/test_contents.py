"""What the packages contain, and what they must not contain."""

import os
import re
import subprocess
import zipfile
from pathlib import Path

import pytest

from .conftest import BOOST, GCC, ROOT, UNITS, debian_version, files_below, tool

COMMON_LICENCES = {path.name for path in Path("/usr/share/common-licenses").iterdir()}
STAND_INS = ("corvid.dll", "corvid.so", "pelham.dll", "libpelham.so", "keyward-seal", "corvid.key")
MINGW = "x86_64-w64-mingw32-"


def documents():
    listed = tool("git", "ls-files", "README.md", "CHANGELOG.md", "docs/*.md", "deploy/README.md", cwd=ROOT)
    return set(listed.split())


def without_licences(names):
    return {name for name in names if not name.startswith("licenses/")}


def licences(names):
    found = {Path(name).stem for name in names if name.startswith("licenses/")}
    return found - COMMON_LICENCES


def test_all_packages_exist_and_nothing_else(dist, version):
    windows = f"KydLogUploader-{version}-windows-x64"
    debian = f"kydloguploader_{debian_version(version)}_amd64"
    companion = f"KydLogUploader-{version}-companion-development-windows-x64-mingw"
    kinds = ["mingw"]
    if (dist / f"{windows}-msvc.msi").exists():
        kinds.append("msvc")  # with --windows-programs
    assert files_below(dist) == {
        f"{windows}-{kind}{ending}" for kind in kinds for ending in (".zip", ".msi", "-symbols.zip", ".cdx.json")
    } | {
        f"{companion}.zip", f"{companion}.cdx.json",
        f"{debian}.deb", f"{debian}.cdx.json",
        f"kydloguploader-dbgsym_{debian_version(version)}_amd64.deb", "SHA256SUMS",
    }


def test_checksums_are_those_of_all_packages(dist):
    tool("sha256sum", "--check", "--strict", "SHA256SUMS", cwd=dist)
    named = {line.split("  ")[1] for line in (dist / "SHA256SUMS").read_text("ascii").splitlines()}
    assert named == files_below(dist) - {"SHA256SUMS"}


def test_product_has_programs_documents_and_settings(archives):
    assert without_licences(files_below(archives.product)) == documents() | {
        "KydLogUploader.exe", "KydUploadStatus.exe", "LICENSE.txt",
        "deploy/diagnostic-log/default.reg", "deploy/diagnostic-log/off.reg",
        "deploy/diagnostic-log/on.reg", "deploy/windows/KydLogUploader.task.xml",
        "deploy/monitoring/kydloguploader.dashboard.json", "deploy/monitoring/kydloguploader.rules.yml",
        "deploy/monitoring/metrics.conf", "deploy/windows/PolicyDefinitions/KydLogUploader.admx",
        "deploy/windows/PolicyDefinitions/en-US/KydLogUploader.adml",
    }


def test_product_has_the_licence_of_everything_in_it(archives):
    assert licences(files_below(archives.product)) == {
        "cpprest", BOOST, "rapidjson-dev", "libfmt-dev", "libcli11-dev",
        "mingw-w64-common", "mingw-w64-x86-64-dev", "g++-mingw-w64-x86-64-posix",
        "gcc-mingw-w64-x86-64-posix",
    }
    folder = archives.product / "licenses"
    assert "Permission is hereby granted" in (folder / "cpprest.txt").read_text("utf-8")
    assert "GCC RUNTIME LIBRARY EXCEPTION" in (folder / "g++-mingw-w64-x86-64-posix.txt").read_text("utf-8")
    assert (folder / "GPL-3.txt").exists()


def test_companion_has_the_stand_ins_and_their_licences(archives):
    names = files_below(archives.companion)
    libraries = {"Corvid.dll", "pelham.dll", "keyward-seal.exe"}
    symbols = {f"{name}.debug" for name in libraries}
    texts = {"README.md", "docs/companion.md", "LICENSE.txt"}
    assert without_licences(names) == libraries | symbols | texts
    assert licences(names) >= {"rapidjson-dev", "libutfcpp-dev", "g++-mingw-w64-x86-64-posix"}


def test_no_package_contains_a_stand_in_for_the_closed_libraries(archives, debian_files, dist, version):
    symbols = files_below(archives.symbols)
    debian_symbols = tool(
        "dpkg-deb", "--contents", dist / f"kydloguploader-dbgsym_{debian_version(version)}_amd64.deb"
    )
    for names in (files_below(archives.product), symbols, files_below(debian_files), debian_symbols.split()):
        assert not [name for name in names if Path(name).name.lower().startswith(STAND_INS)]


def test_debian_package_has_programs_documents_and_examples(debian_files):
    documentation = "usr/share/doc/kydloguploader/"
    names = {name.removesuffix(".gz") for name in files_below(debian_files)}
    own = {name for name in names if not name.startswith(f"{documentation}licenses/")}
    # Debian has its own name for the change log.
    assert own == {f"{documentation}{name}" for name in documents() - {"CHANGELOG.md"}} | {
        f"{documentation}changelog",
        "usr/lib/kydloguploader/KydLogUploader", "usr/sbin/KydLogUploader",
        "usr/lib/kydloguploader/KydUploadStatus", "usr/bin/KydUploadStatus",
        "usr/share/man/man8/KydLogUploader.8", "usr/share/man/man1/KydUploadStatus.1",
        f"{documentation}changelog.Debian", f"{documentation}copyright",
        f"{UNITS}/kydloguploader.service", f"{UNITS}/kydloguploader.timer",
        "etc/default/kydloguploader", "usr/lib/kydloguploader/check-settings",
        f"{documentation}examples/kydloguploader.sysusers.conf", f"{documentation}examples/user.conf",
        f"{documentation}examples/on.reg", f"{documentation}examples/off.reg",
        f"{documentation}examples/default.reg", f"{documentation}examples/metrics.conf",
        f"{documentation}examples/kydloguploader.rules.yml",
        f"{documentation}examples/kydloguploader.dashboard.json",
    }
    # The common licences are on every Debian machine.
    prefix = f"{documentation}licenses/"
    assert {name.removeprefix(prefix).removesuffix(".txt") for name in names - own} == {
        "cpprest", BOOST, "rapidjson-dev", "libfmt-dev", "libcli11-dev", "libutfcpp-dev",
        "libc6-dev", f"libgcc-{GCC}-dev", "libssl-dev", f"libstdc++-{GCC}-dev",
    }


def test_archives_show_one_time_and_are_sorted(archives):
    time = int(tool("git", "log", "-1", "--format=%ct", cwd=ROOT))
    moment = tool("date", "--utc", f"--date=@{time // 2 * 2}", "+%Y %-m %-d %-H %-M %-S").split()
    for kind in ("windows-x64-mingw", "windows-x64-mingw-symbols", "companion-development-windows-x64-mingw"):
        with zipfile.ZipFile(archives.path(kind)) as archive:
            entries = archive.infolist()
        assert {entry.date_time for entry in entries} == {tuple(map(int, moment))}
        names = [entry.filename for entry in entries]
        assert names == sorted(names)
        # The archive has a single top-level folder.
        assert {name.split("/")[0] for name in names} == {archives.path(kind).stem}


def test_texts_have_windows_line_ends(archives):
    for name in files_below(archives.product):
        if name.endswith((".md", ".txt", ".reg")):
            content = (archives.product / name).read_bytes()
            assert content.count(b"\r\n") == content.count(b"\n") > 0, name


def test_settings_are_those_of_the_project(archives):
    for name in files_below(archives.product):
        if name.endswith((".reg", ".xml", ".admx", ".adml")):
            assert (archives.product / name).read_bytes() == (ROOT / name).read_bytes(), name


@pytest.mark.parametrize("name", ["KydLogUploader.exe", "KydUploadStatus.exe"])
def test_windows_programs_and_symbols_belong_together(archives, name, tmp_path):
    program, symbols = archives.product / name, archives.symbols / f"{name}.debug"
    build_ids = []
    for number, file in enumerate((program, symbols)):
        section = tmp_path / f"{number}"
        tool(f"{MINGW}objcopy", "--dump-section", f".buildid={section}", file, tmp_path / "copy")
        # The file offset precedes the mark.
        build_ids.append(section.read_bytes().partition(b"RSDS")[2])
    assert build_ids[0] == build_ids[1] and any(build_ids[0][:16])

    sections = tool(f"{MINGW}objdump", "--section-headers", program)
    assert ".debug_info" not in sections
    assert ".debug_info" in tool(f"{MINGW}objdump", "--section-headers", symbols)
    # The program contains the name and the checksum of the file.
    tool(f"{MINGW}objcopy", "--dump-section", f".gnu_debuglink={tmp_path / 'link'}", program, tmp_path / "copy")
    assert (tmp_path / "link").read_bytes().split(b"\0")[0].decode() == symbols.name


def test_addresses_resolve_to_source_lines(archives):
    symbols = archives.symbols / "KydLogUploader.exe.debug"
    listed = tool(f"{MINGW}nm", symbols)
    address = re.search(r"^([0-9a-f]+) T \S*RunUploader\S*$", listed, re.M)[1]
    place = tool(f"{MINGW}addr2line", "-e", symbols, address).strip()
    name, line = re.fullmatch(r"(?:\./)+(uploader/run\.cpp):(\d+)", place).groups()
    assert "RunUploader" in (ROOT / name).read_text("utf-8").splitlines()[int(line) - 1]


def test_linux_programs_and_symbols_belong_together(debian_files, dist, version, tmp_path):
    tool("dpkg-deb", "--extract", dist / f"kydloguploader-dbgsym_{debian_version(version)}_amd64.deb", tmp_path)
    for name in ("usr/lib/kydloguploader/KydLogUploader", "usr/bin/KydUploadStatus"):
        notes = tool("readelf", "--notes", debian_files / name)
        build_id = re.search(r"Build ID: ([0-9a-f]{40})", notes)[1]
        symbols = tmp_path / f"usr/lib/debug/.build-id/{build_id[:2]}/{build_id[2:]}.debug"
        assert f"Build ID: {build_id}" in tool("readelf", "--notes", symbols)
        assert ".debug_info" in tool("readelf", "--wide", "--sections", symbols)
        assert ".debug_info" not in tool("readelf", "--wide", "--sections", debian_files / name)


def test_no_folder_of_the_build_is_in_a_program():
    """Checks the programs before the packages are created, with all debug information."""
    folders = [os.fspath(ROOT), os.fspath(Path.home()), ".cache/"]
    programs = [
        path for platform in ("linux", "windows")
        for path in (ROOT / f"build/release-{platform}/bin").iterdir()
    ]
    assert len(programs) == 11
    for program in programs:
        content = program.read_bytes()
        found = [folder for folder in folders if folder.encode() in content]
        assert not found, program


def test_tree_without_its_changes_is_what_is_packed():
    done = subprocess.run(
        ["git", "check-ignore", "--quiet", "dist/SHA256SUMS"], cwd=ROOT, check=False
    )
    assert done.returncode == 0  # otherwise the packages themselves would count as changes
