"""KydUploadStatus --check: reports what would prevent the next run from working, without a run."""

import datetime
import os
import re
import shutil
import subprocess
import time
from pathlib import Path

import pytest

from service.log_service import Answer, Hold

from .platforms import ROOT, wait_until
from .status_tool import (
    CRITICAL, MANY, OK, SECONDS, UNKNOWN, USAGE, WARNING, command, run_at_little_cost, status,
)
from .test_file_systems import mounted
from .test_status import OpenWatch


def check(machine, *arguments, **more):
    return status(machine, "--check", *arguments, **more)


def findings(machine, code):
    """Runs a check, which must exit with this code; returns (state, file name, problem) for each finding."""
    finished = check(machine, "--json")
    assert finished.code == code, finished.output
    assert finished.errors == ""
    report = finished.json()
    assert report["state"] == ["ok", "warning", "critical", "unknown"][code]
    assert all(one["remedy"] for one in report["findings"])
    separator = machine.platform.separator
    return [(one["state"], one["path"].split(separator)[-1], one["problem"])
            for one in report["findings"]]


@pytest.fixture
def good(machine):
    """A machine without findings and with its own copy of the program folder."""
    machine.use_own_program_folder()
    machine.account("alice")
    machine.log("alice", "a.log")
    return machine


def test_reports_no_findings(good):
    finished = check(good)
    assert finished.code == OK
    assert finished.output.splitlines() == [
        "OK: nothing found that would prevent the next run from working; "
        "checked with the rights of this user"
    ]
    assert findings(good, OK) == []


def test_changes_and_creates_nothing(good):
    good.switch_log_on()
    before = sorted(good.folder.rglob("*"))
    assert findings(good, OK) == []
    assert sorted(good.folder.rglob("*")) == before


# The libraries.


def libraries(machine):
    return machine.platform.companion_name, machine.platform.configuration_name


@pytest.mark.parametrize("which", [0, 1], ids=["companion", "configuration"])
@pytest.mark.parametrize(
    ("content", "problem"),
    [
        (None, "is missing"),
        (b"", "is not a library or is damaged"),
        (b"text, and no library\n" * 100, "is not a library or is damaged"),
        (b"MZ" + b"\xff" * 5000, "is not a library or is damaged"),
        (b"\x7fELF\x02\x01" + b"\xff" * 12 + b"\x3e\0" + b"\xff" * 5000,
         "is not a library or is damaged"),
        ("cut", "is not a library or is damaged"),
        ("other system", "is for another operating system"),
        ("program", "is a program, not a library"),
    ],
    ids=["missing", "empty", "text", "damaged-pe", "damaged-elf", "cut", "other-system", "program"],
)
def test_library_of_the_wrong_kind(good, which, content, problem):
    name = libraries(good)[which]
    path = good.program_folder / name
    if content == "cut":
        content = path.read_bytes()[:8192]  # headers and tables, but not all of the content
    elif content == "other system":
        corpus = Path(__file__).parents[1] / "fuzz/corpus/library_tables"
        other = "elf-gnu" if good.platform.name == "windows" else "pe-mingw"
        content = (corpus / other).read_bytes()
    elif content == "program":
        content = (good.program_folder / good.platform.status_name).read_bytes()
    path.unlink()
    if content is not None:
        path.write_bytes(content)
    assert findings(good, CRITICAL) == [("critical", name, problem)]


def test_libraries_are_not_loaded(good, service):
    """The loader itself lists the libraries that it loads."""
    tell, loaded = {"LD_DEBUG": "files"}, r"calling init: .*/(\S+)"
    if good.platform.name == "windows":
        tell, loaded = {"WINEDEBUG": "+loaddll"}, r"Loaded L?\".*\\\\(\S+)\""
    programs = {
        good.platform.status_name: [good.native(), "--check"],
        good.platform.program_name: [good.tenant, good.native()],
    }
    seen = {}
    for program, arguments in programs.items():
        finished = subprocess.run(
            good.platform.command(good.program_folder / program, arguments),
            env={**good.environment, **tell}, cwd=good.working_folder,
            stdin=subprocess.DEVNULL, capture_output=True, timeout=SECONDS, check=False,
        )
        assert finished.returncode == OK
        seen[program] = set(re.findall(loaded, finished.stderr.decode("utf-8", "replace")))
    names = set(libraries(good))
    assert names <= seen[good.platform.program_name]  # shows that loading is detected at all
    assert seen[good.platform.status_name] and not names & seen[good.platform.status_name]


def test_library_for_another_processor(good):
    name = libraries(good)[0]
    path = good.program_folder / name
    content = bytearray(path.read_bytes())
    if good.platform.name == "windows":
        header = int.from_bytes(content[0x3C:0x40], "little")
        content[header + 4 : header + 6] = b"\x4c\x01"
    else:
        content[18:20] = b"\xb7\0"
    path.write_bytes(content)
    processor = "32-bit x86" if good.platform.name == "windows" else "ARM64"
    assert findings(good, CRITICAL) == [
        ("critical", name, f"is for {processor}, not for x86-64")
    ]


@pytest.mark.parametrize(
    ("variant", "export"),
    [
        ("no-decrypt", "Corvid_CmpCphr_Decrypt"),
        ("no-base64", "Corvid_Base64_Decode"),
        ("no-event-log", "Corvid_Write_EventLog"),
    ],
)
def test_library_without_an_export(good, variant, export):
    name = libraries(good)[0]
    shutil.copy2(good.platform.variant(variant), good.program_folder / name)
    assert findings(good, CRITICAL) == [("critical", name, f"does not export {export}")]


def test_library_without_the_user_agent(good):
    companion, configuration = libraries(good)
    shutil.copy2(good.program_folder / companion, good.program_folder / configuration)
    [(state, name, problem)] = findings(good, CRITICAL)
    assert (state, name) == ("critical", configuration)
    assert problem.startswith("does not export ") and "CreateWebAPIUserAgent" in problem


def test_library_of_another_run_time(good):
    if good.platform.name == "linux":
        pytest.skip("Linux has only one C run-time")
    # Overwrite names in the import table with names that are not longer.
    own, other = {
        "MinGW-w64": (rb"msvcrt\.dll", b"MSVCR7.dll"),
        "Visual C++": (rb"(?:VCRUNTIME140(?:_1)?|MSVCP140|ucrtbase|api-ms-win-crt-[a-z0-9-]+)\.dll", b"msvcrt.dll"),
    }[good.platform.run_time]
    for name in libraries(good):
        path = good.program_folder / name
        content, changes = re.subn(own + rb"\0", lambda found: other.ljust(len(found[0]), b"\0"), path.read_bytes())
        assert changes
        path.write_bytes(content)
    assert findings(good, CRITICAL) == [
        ("critical", name, f"was built for another C or C++ run-time ({other.decode()})")
        for name in libraries(good)
    ]


def test_tool_without_the_uploader_next_to_it(good):
    for name in (good.platform.program_name, *libraries(good)):
        (good.program_folder / name).unlink()
    assert findings(good, UNKNOWN) == [
        ("unknown", good.platform.program_name,
         "is missing, so the libraries beside it cannot be checked")
    ]


# Another instance.


def test_reports_a_run_without_disturbing_it(good, service):
    hold = Hold()
    service.decide = lambda request: Answer(hold=hold)
    good.log("alice", "b.log")
    with good.start() as running:
        assert hold.reached.wait(SECONDS)
        assert findings(good, WARNING) == [
            ("warning", good.platform.program_name,
             "is running; a copy that is started now ends at once")
        ]
        hold.release.set()
        running.wait_for_good_end()
    assert good.is_archived("alice", "a.log") and good.is_archived("alice", "b.log")
    assert findings(good, OK) == []


def test_run_starts_during_checks(good, service):
    """If a check held the instance name even briefly, some of these runs would exit."""
    codes = good.folder / "codes"
    checking = subprocess.Popen(
        ["sh", "-c", 'while [ -e "$0" ]; do "$@" >/dev/null; echo $? >>"$CODES"; done',
         good.sysroot / "run", *command(good, good.native(), "--check")],
        env={**good.environment, "CODES": codes},
        cwd=good.working_folder, stdin=subprocess.DEVNULL,
    )
    try:
        for number in range(5):
            good.log("alice", f"{number}.log")
            with good.start() as running:
                running.wait_for_good_end()
            assert good.is_archived("alice", f"{number}.log")
        assert wait_until(codes.exists)
    finally:
        checking.kill()
        checking.wait()
    # A check that finds a running instance warns.
    assert set(codes.read_text("ascii").split()) <= {str(OK), str(WARNING)}


# The tree.


def test_missing_upload_folder(machine):
    shutil.rmtree(machine.upload())
    assert findings(machine, CRITICAL) == [("critical", "Upload", "is missing")]


def test_missing_log_directory(machine):
    finished = check(machine, "--json", log_dir=machine.folder / "nowhere")
    assert finished.code == CRITICAL
    assert [one["problem"] for one in finished.json()["findings"]] == [
        "is missing", "is missing, so runs leave no results"
    ]


def test_missing_result_folder(good):
    shutil.rmtree(good.log_dir / "UploadResult")
    assert findings(good, WARNING) == [
        ("warning", "UploadResult", "is missing, so runs leave no results")
    ]


def test_disk_too_full_for_results(good, tmp_path):
    results = good.log_dir / "UploadResult"
    results.rmdir()
    with mounted("mount -t tmpfs -o size=512k none $1", tmp_path) as root:
        results.symlink_to(root)
        assert findings(good, WARNING) == [
            ("warning", "UploadResult",
             "has only 512.0 KiB free, so what a run writes may be lost")
        ]
        (root / "file").write_bytes(b"x" * 512 * 1024)
        [(_, _, problem)] = findings(good, WARNING)
        assert problem == "has only 0 B free, so what a run writes may be lost"


def test_archive_on_a_full_disk_of_its_own(good, tmp_path):
    good.archive("alice").rmdir()
    with mounted("mount -t tmpfs -o size=512k none $1", tmp_path) as root:
        good.archive("alice").symlink_to(root)
        [(state, name, problem)] = findings(good, WARNING)
        assert (state, name) == ("warning", "alice")
        assert problem == "is on a full disk, so accepted files stay and are sent by every run"


def test_missing_archive_folders_are_one_finding(machine):
    for name in ("alice", "bob", "carol"):
        machine.account(name, archive=False)
    [(state, _, problem)] = findings(machine, WARNING)
    assert state == "warning"
    assert problem == (
        "is missing, so accepted files stay and are sent by every run (and 2 more like it)"
    )


def test_missing_credentials_matter_when_files_wait(machine):
    machine.account("alice", seal=False)
    assert findings(machine, OK) == []
    machine.log("alice", "a.log")
    assert findings(machine, WARNING) == [
        ("warning", "UserData.dat", "is missing, so none of the account's files are sent")
    ]


def test_folder_in_place_of_a_log_file_ends_a_run(good):
    good.upload("alice", "odd.log").mkdir()
    assert findings(good, CRITICAL) == [("critical", "odd.log", "is a folder; a run ends there")]


def test_names_of_all_kinds(machine):
    names = ["with blank", "\u00e4\u00f6\u00fc", "\u6c34"]
    if machine.platform.name == "linux":
        names += [os.fsdecode(b"\xff\xfe"), "two\nlines", "\x1b[31mred"]
    for name in names:
        machine.account(name, archive=False)
    finished = check(machine)
    assert finished.code == WARNING
    assert len(finished.output.splitlines()) == 2 and "\x1b" not in finished.output
    assert f"(and {len(names) - 1} more like it)" in finished.output


def test_never_opens_a_credential_file(good, service):
    with OpenWatch(good.credential("alice")) as watch:
        finished = subprocess.run(
            command(good, good.native(), "--check"), env=good.environment,
            stdin=subprocess.DEVNULL, capture_output=True, timeout=SECONDS, check=False,
        )
        assert finished.returncode == OK
        assert not watch.was_opened()
        with good.start() as running:
            running.wait_for_good_end()
        assert watch.was_opened()


# As an ordinary user: permissions do not restrict root.


@pytest.fixture
def ordinary_check(ordinary):
    """Runs a check as an ordinary user on a tree with one waiting file."""
    ordinary.write("logs/Upload/alice/a.log", b"a")
    ordinary.write("logs/LogWork/alice/UserData.dat", b"sealed")

    def run():
        finished = ordinary("--check", "--json")
        return finished.code, [
            (one["state"], one["path"].removeprefix(f"{ordinary.folder}/"), one["problem"])
            for one in finished.json()["findings"]
        ]

    return run


def test_ordinary_user_with_all_rights(ordinary_check):
    assert ordinary_check() == (OK, [])


@pytest.mark.parametrize(
    ("path", "mode", "code", "problem"),
    [
        ("logs/Upload", 0o300, CRITICAL, "cannot be listed (access denied)"),
        ("logs/Upload/alice", 0o300, WARNING,
         "cannot be listed, so none of the account's files are sent"),
        ("logs/Upload/alice", 0o500, WARNING,
         "cannot be moved away and would be sent by every run"),
        ("logs/Upload/alice/a.log", 0o000, CRITICAL, "cannot be read; a run ends there"),
        ("logs/Archive/alice", 0o500, WARNING,
         "does not accept new files, so accepted files stay and are sent by every run"),
        ("logs/LogWork/alice/UserData.dat", 0o000, WARNING,
         "cannot be read, so none of the account's files are sent"),
        ("logs/LogWork/alice", 0o500, WARNING, "cannot be removed when the service refuses it"),
        ("logs/UploadResult", 0o500, WARNING,
         "cannot be written to (access denied), so runs leave no results"),
        ("program/Corvid.so", 0o000, CRITICAL, "cannot be read (access denied)"),
        ("sysroot/run/lock", 0o500, CRITICAL,
         "cannot make sure that only one copy runs, and would end at once (access denied)"),
    ],
)
def test_missing_right(ordinary, ordinary_check, path, mode, code, problem):
    (ordinary.folder / path).chmod(mode)
    found = ordinary_check()
    assert (found[0], [one[2] for one in found[1]]) == (code, [problem])
    if not path.startswith("sysroot"):
        named = {"logs/Upload/alice/a.log", path, f"{path}/a.log", f"{path}/UserData.dat"}
        assert found[1][0][1] in named


def test_settings_that_cannot_be_read(ordinary, ordinary_check):
    settings = ordinary.write("sysroot/etc/keyward/registry.reg",
                              b"Windows Registry Editor Version 5.00\n")
    assert ordinary_check() == (OK, [])
    settings.chmod(0)
    code, [(state, _, problem)] = ordinary_check()
    assert (code, state) == (WARNING, "warning")
    assert problem == "cannot be read, so there will be no diagnostic log (access denied)"


def test_result_file_of_the_day_that_cannot_be_written(ordinary, ordinary_check):
    today = datetime.date.today()
    for day in (today, today + datetime.timedelta(days=1)):  # in case the test crosses midnight
        ordinary.write(f"logs/UploadResult/UploadResult{day:%Y%m%d}.log").chmod(0o444)
    code, [(_, path, problem)] = ordinary_check()
    assert code == WARNING and path.startswith("logs/UploadResult/UploadResult")
    assert problem == "cannot be written to (access denied), so runs leave no results"


# The diagnostic log.


def test_log_settings_of_the_wrong_type(good):
    good.settings({"OutputLog": "16", "OutputLogDir": 1})
    assert findings(good, WARNING) == [
        ("warning", name.split("\\")[-1] if good.platform.separator == "\\" else name, problem)
        for name, problem in (
            (r"HKEY_LOCAL_MACHINE\SOFTWARE\Veltrane\Veltrane Keyward\Corvid\OutputLog",
             "is not of type DWORD and counts as absent"),
            (r"HKEY_LOCAL_MACHINE\SOFTWARE\Veltrane\Veltrane Keyward\Corvid\OutputLogDir",
             "is not of type SZ and counts as absent"),
        )
    ]


def test_log_folder_that_cannot_be_made(good):
    (good.diagnostic_base / "DebugSSO").write_bytes(b"a file in its place")
    good.switch_log_on()
    [(state, name, problem)] = findings(good, WARNING)
    assert (state, name) == ("warning", "DebugSSO")
    assert problem == (
        "cannot be written, so there will be no diagnostic log (there is a file in its place)"
    )


def test_log_file_that_cannot_be_renamed(ordinary, ordinary_check):
    shutil.copy(
        ROOT / "deploy/diagnostic-log/on.reg", ordinary.folder / "sysroot/etc/keyward/registry.reg"
    )
    folder = ordinary.folder / "sysroot/var/log/DebugSSO"
    folder.mkdir()
    (folder / "KydLogUploader.log").touch()
    for path in (folder, folder / "KydLogUploader.log"):
        shutil.chown(path, "nobody")
    assert ordinary_check() == (OK, [])
    folder.chmod(0o500)
    code, [(state, path, problem)] = ordinary_check()
    assert (code, state, path.split("/")[-1]) == (WARNING, "warning", "KydLogUploader.log")
    assert problem == "cannot be renamed when it is full, so it keeps growing (access denied)"


def test_log_folder_that_will_be_made(good):
    base = good.diagnostic_base / "not" / "there"
    good.switch_log_on(OutputLogDir=good.platform.native_path(base))
    assert findings(good, OK) == []
    assert not base.parent.exists()


# The clock.


def test_result_file_from_the_future(good):
    for days in (0, 1):
        day = datetime.date.today() + datetime.timedelta(days=days)
        (good.log_dir / f"UploadResult/UploadResult{day:%Y%m%d}.log").write_bytes(b"")
    (good.log_dir / "UploadResult/UploadResult-of-nothing.log").write_bytes(b"")
    assert findings(good, OK) == []
    late = f"UploadResult{datetime.date.today() + datetime.timedelta(days=30):%Y%m%d}.log"
    (good.log_dir / "UploadResult" / late).write_bytes(b"")
    [(state, name, problem)] = findings(good, WARNING)
    assert (state, name) == ("warning", late)
    assert problem.startswith("is dated in the future, but the clock says ")


def test_program_from_the_future(good):
    path = good.program_folder / good.platform.program_name
    copy = path.with_suffix(".copy")
    shutil.copy2(path, copy)
    copy.replace(path)
    then = time.time() + 3 * 24 * 3600
    os.utime(path, (then, then))
    [(state, name, problem)] = findings(good, WARNING)
    assert (state, name) == ("warning", good.platform.program_name)
    assert problem.endswith("one of the two is wrong")


# The command line and large trees.


@pytest.mark.parametrize("more", [["--days", "1"], ["--html", "x.html"], ["--max-age", "1"]])
def test_rejects_options_of_the_report(machine, more):
    finished = check(machine, *more)
    assert finished.code == USAGE and more[0] in finished.errors


def test_many_waiting_files(machine):
    if machine.platform.name == "windows":
        pytest.skip("this would measure Wine's folder search")
    if machine.platform.is_built_with("asan", "tsan"):
        pytest.skip("this build needs additional memory")
    machine.account("alice")
    for number in range(MANY):
        os.close(os.open(machine.upload("alice", f"{number}.log"), os.O_WRONLY | os.O_CREAT))
    assert run_at_little_cost(machine, machine.native(), "--check").startswith(b"OK: ")
