"""The Windows Installer package: its tables, and its effect on a Windows machine under Wine."""

import re
import shutil
import subprocess
import uuid
import xml.etree.ElementTree
import zipfile

import pytest

from .conftest import ROOT, files_below, tool
from .windows_machine import INSTALLED, SETTINGS_KEY, changed, that_replaces_under_wine

MUTEX = r"Global\VeltraneKydLogUploaderMutexString"
# The entry of the setup program that preceded the package.
SETUP_ENTRY = r"HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall\KydLogUploader"
DONE, FAILED = 0, 1603
# Installed packages have this code, so it must never change.
UPGRADE_CODE = "{B5C34B57-4C3E-4D6E-9F0C-0E9C3D5A7F21}"
# Bits in the tables' columns.
COMPONENT_64_BIT = 256
DLL, IGNORED, ON_ROLLBACK, DEFERRED, AS_SYSTEM = 1, 64, 256, 1024, 2048
TASK_SPACE = {"t": "http://schemas.microsoft.com/windows/2004/02/mit/task"}


@pytest.fixture(scope="session")
def package(dist, version):
    return dist / f"KydLogUploader-{version}-windows-x64-mingw.msi"


class Tables:
    """The tables of a package, with rows as dictionaries."""

    def __init__(self, package):
        self._package = package

    def __getitem__(self, name):
        head, _, _, *rows = tool("msiinfo", "export", self._package, name).splitlines()
        columns = head.split("\t")
        return [dict(zip(columns, row.split("\t"))) for row in rows]

    @property
    def properties(self):
        return {row["Property"]: row["Value"] for row in self["Property"]}

    def sequence(self, name="InstallExecuteSequence"):
        return {row["Action"]: int(row["Sequence"]) for row in self[name]}


@pytest.fixture(scope="session")
def tables(package):
    return Tables(package)


def repackaged(tmp_path, *, version=None, abi="mingw", change=None):
    """Makes a package from the same programs with the same script, as another version or ABI."""
    import msi
    import project
    import windows

    folder = tmp_path / f"files-{version}-{abi}"
    shutil.copytree(project.WORK / f"KydLogUploader-{project.version()}-windows-x64-mingw", folder)
    if change:
        change(folder)
    target = tmp_path / f"{version}-{abi}.msi"
    with pytest.MonkeyPatch.context() as patch:
        if version:
            patch.setattr(project, "version", lambda: version)
        msi.write(folder, project.WORK / "KydSetupActions.dll", target, abi, windows.purpose(abi), project.commit_time())
    return target


# The tables.


def test_identities_are_one_per_version_and_interface(tables, version, tmp_path):
    import msi

    assert tables.properties["UpgradeCode"] == UPGRADE_CODE
    codes = [tables.properties["ProductCode"]]
    for other in ({"version": "1.0.1"}, {"abi": "msvc"}):
        properties = Tables(repackaged(tmp_path, **other)).properties
        assert properties["UpgradeCode"] == UPGRADE_CODE
        codes.append(properties["ProductCode"])
    assert len(set(codes)) == 3
    assert codes[0] == f"{{{msi.identity('product', version, 'mingw')}}}"


def test_same_commit_gives_the_same_bytes(package, tmp_path):
    if tool("git", "status", "--porcelain", cwd=ROOT):
        pytest.skip("the tree has changes")
    assert repackaged(tmp_path).read_bytes() == package.read_bytes()


def test_summary_is_of_the_commit(package):
    summary = dict(line.split(": ", 1) for line in tool("msiinfo", "suminfo", package, env={
        "PATH": "/usr/bin:/bin", "TZ": "UTC0", "LC_ALL": "C"}).splitlines())
    moment = tool("git", "log", "-1", "--format=%cd", "--date=format-local:%a %b %e %H:%M:%S %Y", cwd=ROOT,
                  env={"PATH": "/usr/bin:/bin", "TZ": "UTC0", "LC_ALL": "C"}).strip()
    assert (summary["Created"], summary["Last saved"]) == (moment, moment)
    assert summary["Template"] == "x64;1033"
    assert summary["Version"].startswith("500 ")
    code = uuid.UUID(summary["Revision number (UUID)"])
    assert code.version == 5  # derived, not random


def test_each_component_has_one_file_which_is_its_key(tables):
    components = tables["Component"]
    files = {row["File"]: row for row in tables["File"]}
    assert len(components) == len(files) > 30
    for row in components:
        assert files[row["KeyPath"]]["Component_"] == row["Component"]
        assert int(row["Attributes"]) == COMPONENT_64_BIT
        assert row["Condition"] == ""
    assert len({row["ComponentId"] for row in components}) == len(components)
    features = tables["FeatureComponents"]
    assert sorted(row["Component_"] for row in features) == sorted(row["Component"] for row in components)


def test_component_of_a_path_is_the_same_in_every_version(tables, tmp_path):
    def with_more(folder):
        (folder / "AAA.md").write_text("of the other version", "ascii")

    other = Tables(repackaged(tmp_path, version="2.0.0", change=with_more))["Component"]
    ours = {row["Component"]: row["ComponentId"] for row in tables["Component"]}
    theirs = {row["Component"]: row["ComponentId"] for row in other}
    assert theirs.pop("c_AAA.md") not in ours.values()
    assert theirs == ours


def test_names_and_versions_have_the_required_format(tables, version, archives):
    rows = tables["File"]
    for row in rows:
        short, _, name = row["FileName"].partition("|")
        assert re.fullmatch(r"[A-Z0-9]{1,8}(\.[A-Z0-9]{1,3})?", short), short
        assert name and row["File"].isascii() and len(row["File"]) <= 72
    assert len({row["FileName"].split("|")[0] for row in rows}) == len(rows)
    assert [int(row["Sequence"]) for row in rows] == list(range(1, len(rows) + 1))
    versions = {row["FileName"].split("|")[1]: row["Version"] for row in rows if row["Version"]}
    assert versions == {"KydLogUploader.exe": f"{version}.0", "KydUploadStatus.exe": f"{version}.0"}
    # Files without a version are compared by content.
    hashed = {row["File_"] for row in tables["MsiFileHash"]}
    assert hashed == {row["File"] for row in rows if not row["Version"]}
    sizes = {row["FileName"].split("|")[1]: int(row["FileSize"]) for row in rows if row["Version"]}
    assert sizes == {name: (archives.product / name).stat().st_size for name in sizes}


def test_package_is_for_the_machine_and_never_restarts_it(tables):
    properties = tables.properties
    assert (properties["ALLUSERS"], properties["REBOOT"]) == ("1", "ReallySuppress")
    assert properties["MSIRESTARTMANAGERCONTROL"] == "Disable"
    assert {"TENANT", "LOGDIR", "OLDER", "NEWER"} == set(properties["SecureCustomProperties"].split(";"))
    # The installing user cannot set any directory property.
    directories = {row["Directory"] for row in tables["Directory"]} - {"TARGETDIR"}
    assert "InstallFolder" in directories and not [name for name in directories if name.isupper()]
    actions = {row["Action"] for row in tables["InstallExecuteSequence"]}
    assert not actions & {"ScheduleReboot", "ForceReboot"}


def test_actions_run_at_the_right_time(tables):
    at = tables.sequence()
    assert len(set(at.values())) == len(at)
    assert at["FindRelatedProducts"] < at["LaunchConditions"] < at["CostFinalize"] < at["CheckSetup"]
    # Before anything is modified.
    assert at["CheckSetup"] < at["InstallValidate"] < at["InstallInitialize"]
    # Within the transaction, and before the new files.
    assert at["InstallInitialize"] < at["RemoveExistingProducts"] < at["InstallFiles"]
    # After all actions that can fail.
    last = ["RemoveTask", "RestoreTask", "RegisterTask", "ForgetOldTask", "InstallFinalize"]
    assert sorted(at, key=at.get)[-len(last):] == last
    conditions = {row["Action"]: row["Condition"] for row in tables["InstallExecuteSequence"]}
    assert conditions["CheckSetup"] == "NOT UPGRADINGPRODUCTCODE"
    assert conditions["RemoveTask"] == 'REMOVE="ALL" AND NOT UPGRADINGPRODUCTCODE'
    for action in ("RestoreTask", "RegisterTask", "ForgetOldTask"):
        assert conditions[action] == 'RegisterTask AND NOT (REMOVE="ALL")'
    kinds = {row["Action"]: (int(row["Type"]), row["Source"], row["Target"]) for row in tables["CustomAction"]}
    deferred = DLL | DEFERRED | AS_SYSTEM
    assert kinds == {
        "CheckSetup": (DLL, "Actions", "CheckSetup"),
        "RegisterTask": (deferred, "Actions", "RegisterTask"),
        "RestoreTask": (deferred | ON_ROLLBACK | IGNORED, "Actions", "RestoreTask"),
        "ForgetOldTask": (deferred | IGNORED, "Actions", "ForgetOldTask"),
        "RemoveTask": (deferred | IGNORED, "Actions", "RemoveTask"),
        "SetInstallLocation": (51, "ARPINSTALLLOCATION", "[InstallFolder]"),
    }


def test_older_and_equal_versions_are_replaced_and_newer_ones_stay(tables, version):
    rows = {row["ActionProperty"]: row for row in tables["Upgrade"]}
    assert {row["UpgradeCode"] for row in rows.values()} == {UPGRADE_CODE}
    assert (rows["OLDER"]["VersionMax"], rows["OLDER"]["Attributes"]) == (version, "768")
    assert (rows["NEWER"]["VersionMin"], rows["NEWER"]["Attributes"]) == (version, "2")
    (condition,) = tables["LaunchCondition"]
    assert condition["Condition"] == "NOT NEWER"
    assert condition["Description"].startswith("A newer version of KydLogUploader is installed")


def test_actions_call_exported_functions(package, tmp_path):
    library = tmp_path / "actions.dll"
    library.write_bytes(subprocess.run(
        ["msiinfo", "extract", package, "Binary.Actions"], check=True, capture_output=True).stdout)
    listed = tool("x86_64-w64-mingw32-objdump", "--private-headers", library)
    exports = set(re.findall(r"\] (\w+)$", listed[listed.index("[Ordinal/Name Pointer] Table"):], re.M))
    assert {"CheckSetup", "RegisterTask", "RestoreTask", "ForgetOldTask", "RemoveTask"} <= exports
    # No DLL next to the library can be loaded instead of a system DLL.
    assert set(re.findall(r"DLL Name: (.*)", listed)) <= {
        "ADVAPI32.dll", "KERNEL32.dll", "USER32.dll", "msi.dll", "msvcrt.dll"}


def test_checked_mutex_name_is_the_programs():
    source = (ROOT / "uploader/instance_name.h").read_text("utf-8")
    name = re.search(r'kInstanceName\[\] = L"(\w+)"', source)[1]
    assert MUTEX == f"Global\\{name}"
    assert f'L"{MUTEX}"'.replace("\\", "\\\\") in (ROOT / "packaging/windows/setup_actions.cpp").read_text("utf-8")


# On a machine.


@pytest.fixture
def machine(windows):
    windows.clean()
    yield windows
    windows.clean()


@pytest.fixture
def installed(machine, package):
    assert machine.install(package) == DONE
    return machine


def add_closed_libraries(machine, archives):
    for name in ("Corvid.dll", "pelham.dll"):
        shutil.copyfile(archives.companion / name, machine.folder / name)


def everything(machine):
    return {name: (machine.folder / name).read_bytes() for name in files_below(machine.folder)}


@pytest.fixture
def scheduler(machine):
    """Replaces Wine's Task Scheduler, which drops the arguments of tasks, by one that keeps them."""
    with machine.own_schtasks() as folder:
        yield folder


def lines_of(scheduler):
    """Returns the command lines of the calls of the scheduler."""
    return (scheduler / "lines.txt").read_bytes().decode("utf-16-le").splitlines()


def arguments_of(task):
    """Returns the arguments with which a task starts the program."""
    assert task.startswith(b"\xff\xfe")
    root = xml.etree.ElementTree.fromstring(task.decode("utf-16"))
    return root.findtext("t:Actions/t:Exec/t:Arguments", namespaces=TASK_SPACE)


def test_installs_the_content_of_the_archive(installed, archives, version):
    assert everything(installed) == {
        name: (archives.product / name).read_bytes() for name in files_below(archives.product)
    }
    (entry,) = installed.entries()
    assert (entry["DisplayVersion"], entry["Publisher"]) == (version, "The KydLogUploader authors")
    assert entry["InstallLocation"] == INSTALLED + "\\"
    assert installed.task is None


def test_folder_is_not_the_users_choice(machine, package):
    choice = r"C:\anywhere"
    assert machine.install(package, f"InstallFolder={choice}", f"INSTALLFOLDER={choice}") == DONE
    assert (machine.folder / "KydLogUploader.exe").exists()
    assert not machine.elsewhere.exists()


def test_installed_programs_run(installed, archives, version):
    add_closed_libraries(installed, archives)
    assert installed.run("reg", "import", installed.folder / "deploy/diagnostic-log/on.reg")[0] == 0
    (installed.drive / "KydLog").mkdir(exist_ok=True)
    assert installed.code_of(rf'"{INSTALLED}\KydLogUploader.exe" tenant.example.com C:\KydLog') == 0
    assert r"*** EXECUTE LOGUPLOAD *** Tenant [tenant.example.com] LogDir [C:\KydLog]" in (
        installed.log.read_text("utf-8-sig")
    )
    code, text = installed.run(rf"{INSTALLED}\KydUploadStatus.exe", "--version")
    assert (code, version in text) == (0, True)


def test_check_runs_as_the_guide_says(installed, scheduler, archives):
    """The guide's commands that run the check as local system, and the command that the scheduler starts."""
    guide = (ROOT / "docs/operator-guide.md").read_text("utf-8")
    create, *_ = block = re.search(r"```bat\n(schtasks /Create .*?)```", guide, re.DOTALL)[1].splitlines()
    batch = installed.drive / "check.bat"
    batch.write_text("".join(f"{line}\r\n" for line in block if line.startswith("schtasks")), "ascii")
    code, said = installed.run("cmd", "/c", r"C:\check.bat")
    assert code == 0, said
    created, run, deleted = lines_of(scheduler)
    name = re.search(r"/TN (\S+)", create)[1]
    assert run.endswith(f"/Run /TN {name}") and deleted.endswith(f"/Delete /F /TN {name}")
    assert "/RU SYSTEM" in created
    started = re.search(r'/TR "((?:[^"\\]|\\.)*)"', created)[1].replace('\\"', '"')

    add_closed_libraries(installed, archives)
    for folder in ("Upload", "Archive", "LogWork", "UploadResult"):
        (installed.drive / "KydLog" / folder).mkdir(parents=True)
    report = installed.drive / "windows" / f"{name}.txt"
    try:
        assert installed.code_of(started) == 0
        assert report.read_bytes().startswith(b"OK: nothing found")
    finally:
        report.unlink()
        batch.unlink()


def test_program_does_not_start_without_the_closed_libraries(installed):
    assert installed.code_of(rf'"{INSTALLED}\KydLogUploader.exe" a b') != 0


@pytest.mark.parametrize("log_dir, passed", [
    (r"C:\KydLog", r"C:\KydLog"),
    ('"C:\\Kyd Log\\"', r"C:\Kyd Log"),
    ('"C:\\\\"', "C:\\\\"),  # the root: a backslash before a quotation mark is doubled
    ('"C:\\Größe & \'more\' %TEMP% [x]"', "C:\\Größe & 'more' %TEMP% [x]"),
    (r"\\server\share\logs", r"\\server\share\logs"),
])
def test_properties_register_the_task(machine, scheduler, package, log_dir, passed):
    assert machine.install(package, "TENANT=tenant.example.com:8443", f"LOGDIR={log_dir}") == DONE
    assert arguments_of(machine.task) == f'"tenant.example.com:8443" "{passed}"'
    (line,) = lines_of(scheduler)
    assert f'/Create /F /TN Veltrane\\KydLogUploader /XML "{INSTALLED}\\' in line
    # The temporary definitions have been deleted.
    assert not [name for name in files_below(machine.folder) if name.startswith("KydLogUploader.task.")]
    assert machine.uninstall(package) == DONE
    assert "/Delete /F /TN Veltrane\\KydLogUploader" in lines_of(scheduler)[-1]
    assert machine.task is None


PROPERTIES = ["TENANT=tenant.example.com", r"LOGDIR=C:\KydLog"]
OTHER_TASK = "\ufeff<Task>of an administrator</Task>".encode("utf-16-le")


@pytest.mark.parametrize("before", [None, OTHER_TASK], ids=["no-task", "other-task"])
@pytest.mark.parametrize("failure", ["schtasks", "later"])
def test_failed_installation_leaves_the_task_as_it_was(machine, scheduler, package, tmp_path, before, failure):
    if before:
        machine.task = before
    if failure == "schtasks":
        (scheduler / "fails").touch()  # after registering the task
        message = "The scheduled task was not registered: schtasks failed with 1"
    else:
        # An action that fails because it has no settings.
        package = changed(
            package, tmp_path,
            f"INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES"
            f" ('Fail', {DLL | DEFERRED | AS_SYSTEM}, 'Actions', 'RegisterTask')",
            "INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES"
            " ('Fail', 'NOT (REMOVE=\"ALL\")', 6550)",
        )
        message = "The scheduled task was not registered: its settings are missing"
    code, log = machine.msiexec("/i", package, *PROPERTIES)
    assert (code, message in log) == (FAILED, True)
    # The task had been registered.
    registered, undone = lines_of(scheduler)
    assert "/Create" in registered and ("/Create" if before else "/Delete") in undone
    assert machine.task == before
    assert files_below(machine.folder) == set()


def test_task_that_cannot_be_restored_is_kept_in_a_file(machine, scheduler, package):
    machine.task = OTHER_TASK
    (scheduler / "always-fails").touch()
    code, log = machine.msiexec("/i", package, *PROPERTIES)
    (old,) = machine.folder.glob("KydLogUploader.task.*.old")
    assert code == FAILED
    assert f"The scheduled task could not be restored. Its definition is {INSTALLED}\\{old.name}" in log
    # The next attempt neither deletes it nor takes it for its own.
    (scheduler / "always-fails").unlink()
    assert machine.install(package, *PROPERTIES) == DONE
    assert old.read_bytes() == OTHER_TASK
    assert [one.name for one in machine.folder.glob("KydLogUploader.task.*")] == [old.name]
    assert machine.uninstall(package) == DONE
    old.unlink()


def test_failed_removal_leaves_the_task(machine, scheduler, package):
    assert machine.install(package, *PROPERTIES) == DONE
    task = machine.task
    with machine.held("name", MUTEX):
        assert machine.uninstall(package) == FAILED
    assert machine.task == task


def test_task_comes_and_goes_with_the_package(machine, package):
    assert machine.install(package, "TENANT=tenant.example.com", r"LOGDIR=C:\KydLog") == DONE
    assert b"Uploads the log files" in machine.task.replace(b"\0", b"")
    assert machine.uninstall(package) == DONE
    assert machine.task is None


@pytest.mark.parametrize("properties, message", [
    (["TENANT=tenant.example.com"], "TENANT and LOGDIR belong together"),
    ([r"LOGDIR=C:\KydLog"], "TENANT and LOGDIR belong together"),
    (["TENANT=https://tenant.example.com", r"LOGDIR=C:\KydLog"], "TENANT has to be a host name"),
    (['TENANT="a b"', r"LOGDIR=C:\KydLog"], "TENANT has to be a host name"),
    (['TENANT="a ""b"" c"', r"LOGDIR=C:\KydLog"], "TENANT has to be a host name"),
    (["TENANT=größe.example.com", r"LOGDIR=C:\KydLog"], "TENANT has to be a host name"),
    (["TENANT=tenant.example.com", "LOGDIR=KydLog"], "LOGDIR has to be an absolute path"),
    (["TENANT=tenant.example.com", r"LOGDIR=C:\a|b"], "LOGDIR has to be an absolute path"),
])
def test_wrong_properties_are_refused_and_nothing_is_installed(machine, package, properties, message):
    code, log = machine.msiexec("/i", package, *properties)
    assert code == FAILED
    assert message in log
    assert not machine.folder.exists() and machine.task is None and machine.entries() == []


@pytest.mark.parametrize("kind", ["name", "file"])
def test_nothing_is_installed_while_the_program_runs(machine, package, kind):
    if kind == "file":
        assert machine.install(package) == DONE
        held, message = rf"{INSTALLED}\KydLogUploader.exe", "is in use. Wait until it has ended"
        newer = True
    else:
        held, message, newer = MUTEX, "KydLogUploader is running. Wait until it has ended", False
    before = everything(machine)
    with machine.held(kind, held):
        code, log = machine.msiexec("/i", package, *(["REINSTALL=ALL"] if newer else []))
        assert (code, message in log) == (FAILED, True)
        assert everything(machine) == before
    assert machine.install(package, *(["REINSTALL=ALL"] if newer else [])) == DONE


def test_name_that_any_user_can_take_does_not_switch_the_check_off(machine, package):
    with machine.held("name", r"Global\VeltraneKydLogUploaderSetup"), machine.held("name", MUTEX):
        code, log = machine.msiexec("/i", package)
    assert (code, "KydLogUploader is running" in log) == (FAILED, True)
    assert not machine.folder.exists()


def test_installation_of_the_setup_program_has_to_be_removed_first(machine, package):
    uninstaller = machine.folder / "Uninstall.exe"

    def set_up():
        code, _ = machine.run("reg", "add", SETUP_ENTRY, "/v", "UninstallString", "/d",
                              rf'"{INSTALLED}\Uninstall.exe"', "/f")
        assert code == 0

    try:
        set_up()
        machine.folder.mkdir(parents=True)
        uninstaller.touch()
        code, log = machine.msiexec("/i", package)
        assert code == FAILED
        assert f'was installed by its earlier setup program. Remove it first with "{INSTALLED}\\Uninstall.exe"' in log
        assert files_below(machine.folder) == {"Uninstall.exe"} and machine.entries() == []
        # The entry of an installation whose folder was deleted.
        shutil.rmtree(machine.folder)
        assert machine.install(package) == DONE
        assert machine.uninstall(package) == DONE
        machine.run("reg", "delete", SETUP_ENTRY, "/f")
        assert machine.install(package) == DONE
        # This does not prevent the removal.
        set_up()
        assert machine.uninstall(package) == DONE
    finally:
        machine.run("reg", "delete", SETUP_ENTRY, "/f")


@pytest.mark.parametrize("kind", ["name", "file"])
def test_nothing_is_removed_while_the_program_runs(installed, package, kind):
    held = MUTEX if kind == "name" else rf"{INSTALLED}\KydUploadStatus.exe"
    before = everything(installed)
    with installed.held(kind, held):
        assert installed.uninstall(package) == FAILED
        assert everything(installed) == before
        assert len(installed.entries()) == 1
    assert installed.uninstall(package) == DONE


def test_removing_leaves_nothing_of_its_own(installed, package):
    assert installed.uninstall(package) == DONE
    assert installed.entries() == []
    assert not installed.folder.exists()


def test_removing_leaves_libraries_settings_and_logs(installed, package, archives):
    add_closed_libraries(installed, archives)
    (installed.folder / "docs/ours.txt").write_text("kept", "ascii")
    assert installed.run("reg", "import", installed.folder / "deploy/diagnostic-log/on.reg")[0] == 0
    log_dir = installed.drive / "KydLog/Upload/alice"
    log_dir.mkdir(parents=True, exist_ok=True)
    (log_dir / "a.log").write_text("kept", "ascii")
    installed.run(rf"{INSTALLED}\KydLogUploader.exe", "tenant.example.com", r"C:\KydLog")

    assert installed.uninstall(package) == DONE
    assert files_below(installed.folder) == {"Corvid.dll", "pelham.dll", "docs/ours.txt"}
    assert installed.entries() == []
    code, text = installed.run("reg", "query", SETTINGS_KEY, "/v", "OutputLog")
    assert (code, "0x10" in text) == (0, True)
    assert installed.log.stat().st_size > 0
    assert (log_dir / "a.log").read_text("ascii") == "kept"


@pytest.mark.parametrize("other", [{"version": "0.9.0"}, {"abi": "msvc"}], ids=["older", "other-interface"])
def test_update_replaces_what_is_installed(machine, package, archives, tmp_path, version, other):
    def with_more(folder):
        (folder / "docs/gone.md").write_text("only in the other version", "ascii")
        (folder / "README.md").write_text("of the other", "ascii")

    replaced = repackaged(tmp_path, change=with_more, **other)
    assert machine.install(replaced, "TENANT=tenant.example.com", r"LOGDIR=C:\KydLog") == DONE
    add_closed_libraries(machine, archives)
    assert (machine.folder / "docs/gone.md").exists()
    task = machine.task
    assert task

    assert machine.install(that_replaces_under_wine(package, tmp_path)) == DONE
    files = everything(machine)
    assert {"Corvid.dll", "pelham.dll"} <= files.keys()
    for name in ("Corvid.dll", "pelham.dll"):
        assert files.pop(name) == (archives.companion / name).read_bytes()
    assert files == {name: (archives.product / name).read_bytes() for name in files_below(archives.product)}
    (entry,) = machine.entries()
    assert entry["DisplayVersion"] == version
    assert machine.task == task  # including its settings


def test_newer_version_is_not_replaced(machine, package, tmp_path):
    newer = repackaged(tmp_path, version="9.0.0")
    assert machine.install(newer) == DONE
    before = everything(machine)
    assert machine.install(package) == FAILED
    assert everything(machine) == before
    (entry,) = machine.entries()
    assert entry["DisplayVersion"] == "9.0.0"


def test_archive_runs_where_it_is_unpacked(machine, archives, version, tmp_path):
    with zipfile.ZipFile(archives.path("windows-x64-mingw")) as archive:
        archive.extractall(tmp_path)
    code, text = machine.run(
        tmp_path / f"KydLogUploader-{version}-windows-x64-mingw/KydUploadStatus.exe", "--version"
    )
    assert (code, version in text) == (0, True)
