"""The two libraries next to the program: missing, incomplete or misbehaving."""

import os
import shutil
import subprocess

import pytest

from . import messages as say
from .harness import expect_messages

LOAD_ERROR = "DLL Load Error (Corvid.dll)"


@pytest.fixture
def loaded(machine, service):
    """A machine with a file to send and its own copy of the program folder."""
    machine.switch_log_on()
    machine.account("alice")
    machine.log("alice", "a.log")
    machine.use_own_program_folder()
    return machine


def companion(machine):
    return machine.program_folder / machine.platform.companion_name


def expect_no_run(machine, service, force=False):
    if force:
        machine.run_forced()
    else:
        machine.run()
    assert machine.changes() == ([], [])
    assert not service.connections
    start = say.started(machine, force=force)[:-1]  # The run itself logs nothing.
    expect_messages(machine.messages(), [*start, LOAD_ERROR])


@pytest.mark.parametrize("force", [False, True], ids=["plain", "forced"])
def test_missing_library_means_no_run_at_all(loaded, service, force):
    companion(loaded).unlink()
    expect_no_run(loaded, service, force)


@pytest.mark.parametrize("export", ["no-decrypt", "no-base64", "no-event-log"])
def test_library_that_lacks_one_export_means_no_run(loaded, service, export):
    shutil.copy2(loaded.platform.variant(export), companion(loaded))
    expect_no_run(loaded, service)


# A library with the three functions, all of which fail, and one imported function.
LIBRARY_SOURCE = """
__declspec(dllimport) void FUNCTION(void);
void (*volatile imported)(void);
__declspec(dllexport) int Corvid_CmpCphr_Decrypt(void) { imported = FUNCTION; return 1; }
__declspec(dllexport) int Corvid_Base64_Decode(void) { return 1; }
__declspec(dllexport) int Corvid_Write_EventLog(void) { return 1; }
int start(void) { return 1; }
"""


def put_library_that_imports(machine, library, function):
    """Links a Corvid.dll whose only import is this function of this library."""
    (machine.folder / "import.def").write_text(f"LIBRARY {library}\nEXPORTS\n{function}\n", "ascii")
    (machine.folder / "library.c").write_text(LIBRARY_SOURCE, "ascii")
    for command in (
        ["x86_64-w64-mingw32-dlltool", "-d", "import.def", "-l", "import.a"],
        ["x86_64-w64-mingw32-gcc-posix", "-shared", "-nostdlib", "-fno-builtin", "-Wl,--entry=start",
         f"-DFUNCTION={function}", "library.c", "import.a", "-o", companion(machine)],
    ):
        subprocess.run(command, cwd=machine.folder, check=True, timeout=60)


@pytest.mark.parametrize(
    ("library", "function", "run_time"),
    [
        ("msvcrt.dll", "malloc", "MinGW-w64"),
        ("VCRUNTIME140.dll", "memcpy", "Visual C++"),
        ("MSVCP140.dll", "_Xtime_get_ticks", "Visual C++"),
        ("ucrtbase.dll", "malloc", "Visual C++"),
        ("kernel32.dll", "Sleep", None),
    ],
)
def test_library_for_another_run_time_means_no_run(loaded, service, library, function, run_time):
    if loaded.platform.name == "linux":
        pytest.skip("Linux has only one C run-time")
    if shutil.which("x86_64-w64-mingw32-gcc-posix") is None:
        pytest.skip("MinGW-w64 is not installed")
    put_library_that_imports(loaded, library, function)
    if run_time not in (None, loaded.platform.run_time):
        expect_no_run(loaded, service)
        return
    # The library is called, and fails.
    loaded.run()
    expect_messages(
        loaded.messages(),
        [
            *say.started(loaded),
            "<Read AuthFile> Decrypt error",
            *say.summary(accounts=1, no_send=1),
        ],
    )


def test_library_of_another_compiler_means_no_run(loaded, service, request):
    if loaded.platform.name == "linux":
        pytest.skip("Linux has only one ABI")
    name = loaded.platform.foreign_build
    foreign = request.config.getoption(f"--{name}-bin") / loaded.platform.companion_name
    if not foreign.exists():
        pytest.skip(f"no build for {name}")
    shutil.copy2(foreign, companion(loaded))
    expect_no_run(loaded, service)


@pytest.mark.parametrize(
    "content", [b"", b"this is no library", b"MZ" + bytes(200), b"\x7fELF" + bytes(200)]
)
def test_file_that_is_not_a_library_means_no_run(loaded, service, content):
    companion(loaded).unlink()
    companion(loaded).write_bytes(content)
    expect_no_run(loaded, service)


def test_no_error_box_can_open_when_a_library_is_loaded(loaded, service):
    if loaded.platform.name == "linux":
        pytest.skip("Linux has no error boxes")
    shutil.copy2(loaded.platform.error_mode_library, companion(loaded))
    expect_no_run(loaded, service)
    mode = int((loaded.program_folder / "error-mode").read_text(encoding="ascii"))
    fail_critical_errors, no_open_file_error_box = 0x0001, 0x8000
    assert mode & fail_critical_errors and mode & no_open_file_error_box


def test_library_on_the_search_path_is_not_taken(loaded, service):
    elsewhere = loaded.folder / "elsewhere"
    elsewhere.mkdir()
    shutil.copy2(loaded.program_folder / "Corvid.key", elsewhere)
    shutil.move(companion(loaded), elsewhere)
    loaded.more_environment = {
        "LD_LIBRARY_PATH": os.fspath(elsewhere),
        "WINEPATH": loaded.platform.native_path(elsewhere),
    }
    # Nor is one in the working folder.
    shutil.copy2(elsewhere / loaded.platform.companion_name, loaded.working_folder)
    expect_no_run(loaded, service)


def test_missing_key_file_is_a_decrypt_failure(loaded, service):
    (loaded.program_folder / "Corvid.key").unlink()
    loaded.run()
    expect_messages(
        loaded.messages(),
        [
            *say.started(loaded),
            "<Read AuthFile> Decrypt error",
            *say.summary(accounts=1, no_send=1),
        ],
    )


def test_program_does_not_start_without_the_configuration_library(loaded, service):
    (loaded.program_folder / loaded.platform.configuration_name).unlink()
    with loaded.start() as running:
        code, _ = running.wait_for_end()
    assert code != 0
    assert loaded.changes() == ([], [])
    assert not service.connections
    assert not loaded.diagnostic_log.exists()


def set_user_agent(machine, text):
    (machine.program_folder / "pelham.useragent").write_text(text, encoding="utf-8")


def test_user_agent_comes_from_the_configuration_library(loaded, service):
    set_user_agent(loaded, "Keyward/9.8 (Windows; test)\n")
    loaded.run()
    assert service.requests[0].header("User-Agent") == ["Keyward/9.8 (Windows; test)"]


def test_empty_user_agent_is_replaced(loaded, service):
    set_user_agent(loaded, "\n")
    loaded.run()
    assert service.requests[0].header("User-Agent") == ["VeltraneKeyward/1.15.0"]


def test_user_agent_stays_empty_when_the_configuration_library_throws(loaded, service):
    set_user_agent(loaded, "!throw\n")
    loaded.run()
    assert service.requests[0].header("User-Agent") in ([], [""])
    assert loaded.is_archived("alice", "a.log")
    expect_messages(
        loaded.messages(),
        [
            *say.started(loaded)[:-1],
            "<SetWebAPIUserAgent> exception etc",
            say.SEPARATOR,
            *say.account_in("alice"),
            *say.accepted(loaded, "alice", "a.log"),
            *say.account_out("alice"),
            *say.summary(accounts=1, send=1, ok=1),
        ],
    )


def test_program_uses_its_own_folder_and_not_the_working_folder(loaded, service):
    target = loaded.folder / "a folder with blanks and ä"
    loaded.program_folder.rename(target)
    loaded.program_folder = target
    loaded.run()
    assert loaded.is_archived("alice", "a.log")
