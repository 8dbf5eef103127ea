"""The installer, on a Windows machine under Wine."""

import concurrent.futures
import contextlib
import re
import shutil
import time
import zipfile

import pytest

from .conftest import ROOT, files_below
from .windows_machine import INSTALLED, SETTINGS_KEY

MUTEX = r"Global\VeltraneKydLogUploaderMutexString"
DONE, FAILED, IN_USE = 0, 2, 1618


@pytest.fixture
def machine(windows):
    windows.clean()
    yield windows
    windows.clean()


@pytest.fixture(scope="session")
def installer(dist, version):
    return dist / f"KydLogUploader-{version}-windows-x64-setup.exe"


@pytest.fixture
def installed(machine, installer):
    assert machine.install(installer) == DONE
    return machine


def add_closed_libraries(machine, archives):
    for name in ("Corvid.dll", "pelham.dll"):
        shutil.copyfile(archives.companion / name, machine.folder / name)


def everything(machine):
    return {
        name: (machine.folder / name).read_bytes() for name in files_below(machine.folder)
    }


def test_installs_what_the_archive_has(installed, archives):
    files = everything(installed)
    assert files.pop("Uninstall.exe")[:2] == b"MZ"
    assert files == {
        name: (archives.product / name).read_bytes() for name in files_below(archives.product)
    }


def test_no_stand_in_is_packed_invisibly(installer, archives):
    content = installer.read_bytes()
    # The archive of the installer is one stream; what is installed is judged above. This is about the
    # uncompressed rest: names of what is to be extracted would be in the script's own data.
    for name in ("Corvid.dll", "pelham.dll", "keyward-seal"):
        assert name.encode("utf-16-le") not in content


def test_entry_is_in_add_remove_programs(installed, version):
    entry = installed.entry()
    size = sum(len(content) for content in everything(installed).values()) / 1024
    assert abs(int(entry.pop("EstimatedSize"), 16) - size) < 200
    assert entry == {
        "DisplayName": "KydLogUploader",
        "DisplayVersion": version,
        "Publisher": "The KydLogUploader authors",
        "InstallLocation": INSTALLED,
        "DisplayIcon": rf"{INSTALLED}\Uninstall.exe",
        "UninstallString": rf'"{INSTALLED}\Uninstall.exe"',
        "QuietUninstallString": rf'"{INSTALLED}\Uninstall.exe" /S _?={INSTALLED}',
        "NoModify": "0x1",
        "NoRepair": "0x1",
    }


def test_name_that_is_held_is_the_programs():
    source = (ROOT / "uploader/instance_name.h").read_text("utf-8")
    name = re.search(r'kInstanceName\[\] = L"(\w+)"', source)[1]
    assert MUTEX == f"Global\\{name}"


def test_folder_is_not_the_users_choice(machine, installer):
    assert machine.install(installer, r" /D=C:\anywhere") == DONE
    assert (machine.folder / "KydLogUploader.exe").exists()
    assert not machine.elsewhere.exists()


def test_installed_programs_run(installed, archives, version):
    add_closed_libraries(installed, archives)
    settings = installed.folder / "deploy/diagnostic-log/on.reg"
    assert installed.run("reg", "import", settings)[0] == 0
    logs = installed.drive / "KydLog"
    logs.mkdir(exist_ok=True)
    line = rf'"{INSTALLED}\KydLogUploader.exe" tenant.example.com C:\KydLog'
    assert installed.code_of(line) == 0
    assert r"*** EXECUTE LOGUPLOAD *** Tenant [tenant.example.com] LogDir [C:\KydLog]" in (
        installed.log.read_text("utf-8-sig")
    )
    code, text = installed.run(rf"{INSTALLED}\KydUploadStatus.exe", "--version")
    assert (code, version in text) == (0, True)


def test_program_does_not_start_without_the_closed_libraries(installed):
    assert installed.code_of(rf'"{INSTALLED}\KydLogUploader.exe" a b') != 0


def test_uninstalling_leaves_nothing_of_its_own(installed):
    assert installed.uninstall() == DONE
    assert installed.entry() is None
    installed.wait_until_gone(installed.drive / "Program Files/Veltrane")


@pytest.fixture
def uninstaller_that_stays(installed):
    """Windows lets nobody delete a program that runs; Wine would."""
    with contextlib.ExitStack() as held:
        held.enter_context(installed.held("file", rf"{INSTALLED}\Uninstall.exe"))
        assert installed.code_of(installed.entry()["QuietUninstallString"]) == DONE
        assert files_below(installed.folder) == {"Uninstall.exe"}
        yield held.close


def test_silent_uninstaller_goes_when_it_has_ended(installed, uninstaller_that_stays):
    uninstaller_that_stays()
    installed.wait_until_gone(installed.drive / "Program Files/Veltrane")


def test_installing_waits_for_a_silent_uninstaller_to_go(
    installed, uninstaller_that_stays, installer, archives
):
    with concurrent.futures.ThreadPoolExecutor(1) as background:
        installing = background.submit(installed.install, installer)
        time.sleep(2)  # for nothing to happen
        assert files_below(installed.folder) == {"Uninstall.exe"}
        uninstaller_that_stays()
        assert installing.result(timeout=60) == DONE
    time.sleep(2)  # for nothing to happen: what the uninstaller has left behind has ended
    assert files_below(installed.folder) == files_below(archives.product) | {"Uninstall.exe"}
    assert installed.entry() is not None


def test_uninstalling_by_hand_leaves_nothing_of_its_own(installed):
    # As Add/Remove Programs does it when somebody looks: the uninstaller copies itself elsewhere and
    # ends, so only the result can be waited for.
    assert installed.code_of(rf'"{INSTALLED}\Uninstall.exe" /S') == DONE
    installed.wait_until_gone(installed.drive / "Program Files/Veltrane")
    assert installed.entry() is None


def test_uninstalling_leaves_libraries_settings_and_logs(installed, archives):
    add_closed_libraries(installed, archives)
    (installed.folder / "docs/ours.txt").write_text("kept", "ascii")
    assert installed.run("reg", "import", installed.folder / "deploy/diagnostic-log/on.reg")[0] == 0
    log_dir = installed.drive / "KydLog/Upload/alice"
    log_dir.mkdir(parents=True, exist_ok=True)
    (log_dir / "a.log").write_text("kept", "ascii")
    installed.run(rf"{INSTALLED}\KydLogUploader.exe", "tenant.example.com", r"C:\KydLog")

    assert installed.uninstall() == DONE
    assert files_below(installed.folder) == {"Corvid.dll", "pelham.dll", "docs/ours.txt"}
    assert installed.entry() is None
    code, text = installed.run("reg", "query", SETTINGS_KEY, "/v", "OutputLog")
    assert (code, "0x10" in text) == (0, True)
    assert installed.log.stat().st_size > 0
    assert (log_dir / "a.log").read_text("ascii") == "kept"


@pytest.mark.parametrize("kind", ["name", "file"])
def test_nothing_is_installed_while_the_program_runs(installed, installer, kind):
    path = installed.folder / "KydLogUploader.exe"
    path.write_bytes(b"the one before")
    held = MUTEX if kind == "name" else rf"{INSTALLED}\KydLogUploader.exe"
    before = everything(installed)
    with installed.held(kind, held):
        assert installed.install(installer) == IN_USE
        assert everything(installed) == before
    assert installed.install(installer) == DONE
    assert path.read_bytes() != b"the one before"


@pytest.mark.parametrize("kind", ["name", "file"])
def test_nothing_is_removed_while_the_program_runs(installed, kind):
    held = MUTEX if kind == "name" else rf"{INSTALLED}\KydUploadStatus.exe"
    before = everything(installed)
    with installed.held(kind, held):
        assert installed.uninstall() == IN_USE
        assert everything(installed) == before
        assert installed.entry() is not None
    assert installed.uninstall() == DONE


def test_update_removes_what_the_older_version_had(installed, installer, archives, tmp_path):
    """An older version with a file more: the same installer's script, with another list."""
    import windows as packages  # packaging/windows.py

    add_closed_libraries(installed, archives)
    older = tmp_path / "older"
    shutil.copytree(archives.product, older)
    (older / "docs/gone.md").write_text("of the older version", "ascii")
    packages._write_installer(older, tmp_path / "older-setup.exe", 0, None)
    assert installed.install(tmp_path / "older-setup.exe") == DONE
    assert (installed.folder / "docs/gone.md").exists()

    assert installed.install(installer) == DONE
    assert files_below(installed.folder) == files_below(archives.product) | {
        "Uninstall.exe", "Corvid.dll", "pelham.dll",
    }
    assert installed.entry() is not None


def test_failure_to_write_is_told(machine, installer):
    # A folder where a file should go.
    (machine.folder / "README.md").mkdir(parents=True)
    assert machine.install(installer) == FAILED


def test_archive_runs_where_it_is_unpacked(machine, archives, version, tmp_path):
    with zipfile.ZipFile(archives.path("windows-x64")) as archive:
        archive.extractall(tmp_path)
    code, text = machine.run(
        tmp_path / f"KydLogUploader-{version}-windows-x64/KydUploadStatus.exe", "--version"
    )
    assert (code, version in text) == (0, True)
