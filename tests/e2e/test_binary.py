"""The program's file as the system's loader sees it: what it needs and how it is protected."""

import re
import struct
import subprocess

import pytest

SYSTEM_LIBRARIES = {
    "advapi32.dll",
    "bcrypt.dll",
    "crypt32.dll",
    "kernel32.dll",
    "msvcrt.dll",
    "shell32.dll",
    "shlwapi.dll",
    "user32.dll",
    "winhttp.dll",
}
GUI = 2
HIGH_ENTROPY_VA, DYNAMIC_BASE, NX_COMPATIBLE = 0x20, 0x40, 0x100
EXECUTABLE, WRITABLE = 0x20000000, 0x80000000


def tool(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class PortableExecutable:
    """The headers of a PE32+ file (Microsoft's PE format)."""

    def __init__(self, path):
        content = path.read_bytes()
        start = struct.unpack_from("<I", content, 0x3C)[0]
        assert content[start : start + 4] == b"PE\0\0"
        self.machine, sections = struct.unpack_from("<HH", content, start + 4)
        optional_size = struct.unpack_from("<H", content, start + 20)[0]
        optional = start + 24
        assert struct.unpack_from("<H", content, optional)[0] == 0x20B
        self.subsystem, self.characteristics = struct.unpack_from("<HH", content, optional + 68)
        table = optional + optional_size
        self.sections = {}
        for at in range(table, table + 40 * sections, 40):
            name = content[at : at + 8].rstrip(b"\0").decode()
            self.sections[name] = struct.unpack_from("<I", content, at + 36)[0]


@pytest.fixture
def executable(platform):
    return platform.bin_folder / platform.program_name


@pytest.fixture
def portable(platform, executable):
    if platform.name != "windows":
        pytest.skip("this is about the Windows program")
    return PortableExecutable(executable)


@pytest.fixture
def elf(platform, executable):
    if platform.name != "linux":
        pytest.skip("this is about the Linux program")
    return tool("readelf", "--wide", "--file-header", "--segments", "--dynamic", executable)


def test_windows_program_is_x86_64_without_console(portable):
    assert portable.machine == 0x8664
    assert portable.subsystem == GUI


def test_windows_program_needs_system_libraries_and_the_configuration_library(portable, executable):
    listed = tool("x86_64-w64-mingw32-objdump", "--private-headers", executable)
    needed = {name.lower() for name in re.findall(r"DLL Name: (\S+)", listed)}
    assert "pelham.dll" in needed
    assert needed - {"pelham.dll"} <= SYSTEM_LIBRARIES


def test_windows_program_is_loaded_anywhere_and_never_executes_data(portable):
    wanted = HIGH_ENTROPY_VA | DYNAMIC_BASE | NX_COMPATIBLE
    assert portable.characteristics & wanted == wanted
    assert ".reloc" in portable.sections
    both = EXECUTABLE | WRITABLE
    assert not [name for name, flags in portable.sections.items() if flags & both == both]


def test_stack_is_guarded(platform, executable):
    nm = "x86_64-w64-mingw32-nm" if platform.name == "windows" else "nm"
    assert "__stack_chk_fail" in tool(nm, executable)


def test_linux_program_is_position_independent_and_its_tables_are_read_only(elf):
    assert re.search(r"Type:\s+DYN", elf)
    assert "GNU_RELRO" in elf
    assert re.search(r"\(FLAGS_1\).*\bNOW\b.*\bPIE\b", elf)
    assert re.search(r"GNU_STACK.*\bRW\b", elf) and not re.search(r"GNU_STACK.*\bRWE\b", elf)
    assert not re.search(r"LOAD.*\bRWE\b", elf)


def test_linux_program_uses_the_checked_functions(elf, executable):
    symbols = tool("nm", executable)
    if any(mark in symbols for mark in ("__asan_init", "__tsan_init", "__gcov_init")):
        pytest.skip("this build has checks of its own, or none")
    assert re.search(r"__\w+_chk@", tool("nm", "--dynamic", executable))


def test_linux_program_finds_its_own_libraries_beside_itself_only(elf):
    assert re.findall(r"\((?:RUNPATH|RPATH)\).*\[(.*)\]", elf) == ["$ORIGIN"]
