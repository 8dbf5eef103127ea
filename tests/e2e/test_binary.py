"""The program's file as the system's loader sees it: its dependencies and its hardening."""

import re
import struct
import subprocess
import xml.etree.ElementTree

import pytest

from .platforms import ROOT

SYSTEM_LIBRARIES = {
    "advapi32.dll",
    "bcrypt.dll",
    "crypt32.dll",
    "kernel32.dll",
    "shell32.dll",
    "shlwapi.dll",
    "user32.dll",
    "winhttp.dll",
}
VISUAL_CPP = {"msvcp140.dll", "vcruntime140.dll", "vcruntime140_1.dll"}
GUI, CONSOLE = 2, 3
IMPORTS, RESOURCES, DEBUG, LOAD_CONFIGURATION = 1, 2, 6, 10  # data directories
HIGH_ENTROPY_VA, DYNAMIC_BASE, NX_COMPATIBLE, GUARD_CF = 0x20, 0x40, 0x100, 0x4000
EXTENDED_CHARACTERISTICS, CET_COMPATIBLE = 20, 1
CF_INSTRUMENTED, CF_FUNCTION_TABLE = 0x100, 0x400
EXECUTABLE, WRITABLE = 0x20000000, 0x80000000
RT_STRING, RT_VERSION, RT_MANIFEST = 6, 16, 24
US_ENGLISH = 0x409
MANIFEST_OF_THE_PROCESS = 1


def tool(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class PortableExecutable:
    """Headers and resources of a PE32+ file."""

    def __init__(self, path):
        self._content = content = path.read_bytes()
        start = struct.unpack_from("<I", content, 0x3C)[0]
        assert content[start : start + 4] == b"PE\0\0"
        self.machine, sections = struct.unpack_from("<HH", content, start + 4)
        optional_size = struct.unpack_from("<H", content, start + 20)[0]
        optional = start + 24
        assert struct.unpack_from("<H", content, optional)[0] == 0x20B
        self.subsystem, self.characteristics = struct.unpack_from("<HH", content, optional + 68)
        table = optional + optional_size
        self.sections = {}
        self._places = []
        for at in range(table, table + 40 * sections, 40):
            name = content[at : at + 8].rstrip(b"\0").decode()
            self.sections[name] = struct.unpack_from("<I", content, at + 36)[0]
            self._places.append(struct.unpack_from("<IIII", content, at + 8))
        self._directories = optional + 112
        self._resources = self._directory(RESOURCES)

    def _directory(self, number):
        """Returns the file offset of a data directory, or None."""
        address = self.u32(self._directories + 8 * number)
        return self._offset(address) if address else None

    def u32(self, at):
        return struct.unpack_from("<I", self._content, at)[0]

    def _offset(self, address):
        """Converts a relative virtual address into a file offset."""
        for size, start, stored, offset in self._places:
            if start <= address < start + min(size, stored):
                return offset + address - start
        raise AssertionError(f"{address:#x} is in no section")

    def _entries(self, table):
        named, numbered = struct.unpack_from("<HH", self._content, table + 12)
        for at in range(table + 16, table + 16 + 8 * (named + numbered), 8):
            identifier, place = struct.unpack_from("<II", self._content, at)
            yield identifier, self._resources + (place & 0x7FFFFFFF)

    def needed_libraries(self):
        """Returns the names of the imported libraries, in lower case."""
        found, at = set(), self._directory(IMPORTS)
        while self.u32(at + 12):
            start = self._offset(self.u32(at + 12))
            found.add(self._content[start : self._content.index(b"\0", start)].decode().lower())
            at += 20
        return found

    def extended_characteristics(self):
        size = self.u32(self._directories + 8 * DEBUG + 4)
        start = self._directory(DEBUG)
        (place,) = [at for at in range(start, start + size, 28) if self.u32(at + 12) == EXTENDED_CHARACTERISTICS]
        return self.u32(self.u32(place + 24))

    def guards(self):
        """Returns the address of the stack cookie and the Control Flow Guard flags."""
        start = self._directory(LOAD_CONFIGURATION)
        return struct.unpack_from("<Q", self._content, start + 0x58)[0], self.u32(start + 0x90)

    def resource_kinds(self):
        return {kind for kind, _ in self._entries(self._resources)}

    def resources(self, kind):
        """Returns the resources of one kind: (identifier, language) to bytes."""
        found = {}
        for of_kind, names in self._entries(self._resources):
            if of_kind != kind:
                continue
            for name, languages in self._entries(names):
                for language, leaf in self._entries(languages):
                    address, size = struct.unpack_from("<II", self._content, leaf)
                    start = self._offset(address)
                    found[name, language] = self._content[start : start + size]
        return found


def version_strings(content):
    """Parses a version resource: ((file, product), {name: text})."""
    mark, _, *numbers = struct.unpack_from("<IIIIII", content, 40)
    assert mark == 0xFEEF04BD
    file_version, product_version = (
        (high >> 16, high & 0xFFFF, low >> 16, low & 0xFFFF)
        for high, low in (numbers[:2], numbers[2:])
    )
    texts = {}

    def walk(at):
        length, value_length, is_text = struct.unpack_from("<HHH", content, at)
        end = at + length
        key_end = at + 6
        while content[key_end : key_end + 2] != b"\0\0":
            key_end += 2
        key = content[at + 6 : key_end].decode("utf-16-le")
        value = (key_end + 2 + 3) & ~3
        if is_text and value_length:
            texts[key] = content[value : value + 2 * value_length].decode("utf-16-le").rstrip("\0")
        child = (value + (0 if is_text else value_length) + 3) & ~3
        while not (is_text and value_length) and child < end:
            child = (walk(child) + 3) & ~3
        return end

    walk(0)
    return (file_version, product_version), texts


def project_version():
    """Returns the version from its only definition, the build file."""
    text = (ROOT / "CMakeLists.txt").read_text("utf-8")
    return re.search(r"project\(KydLogUploader VERSION (\d+\.\d+\.\d+)", text)[1]


PROGRAMS = {
    "KydLogUploader": "Uploads waiting log files",
    "KydUploadStatus": "Reports what was uploaded and what is waiting",
}

WHAT_FOR = {
    "MinGW-w64": (
        "mingw", "Built with MinGW-w64, for the stand-in libraries; not for libraries that Visual Studio has built"
    ),
    "Visual C++": ("msvc", "In Visual C++'s binary interface, for closed libraries that Visual Studio has built"),
}


@pytest.fixture
def executable(platform):
    return platform.bin_folder / platform.program_name


@pytest.fixture(params=PROGRAMS)
def windows_program(request, platform):
    if platform.name != "windows":
        pytest.skip("this is about the Windows programs")
    return request.param, PortableExecutable(platform.bin_folder / f"{request.param}.exe")


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


def is_run_time(platform, name):
    """Whether the library is part of the C run-time. MinGW-w64's C++ library is linked statically."""
    if platform.run_time == "Visual C++":
        return name in VISUAL_CPP or name == "ucrtbase.dll" or name.startswith("api-ms-win-crt-")
    return name == "msvcrt.dll"


def needed_libraries(platform, portable):
    """Returns all imported libraries except the run-time's; fails if there is none of those."""
    needed = portable.needed_libraries()
    others = {name for name in needed if not is_run_time(platform, name)}
    assert others != needed
    return others


def test_windows_program_needs_system_libraries_and_the_configuration_library(platform, portable):
    needed = needed_libraries(platform, portable)
    assert "pelham.dll" in needed
    assert needed - {"pelham.dll"} <= SYSTEM_LIBRARIES


def test_status_tool_is_a_console_program_that_needs_system_libraries_only(platform):
    executable = platform.bin_folder / platform.status_name
    if platform.name == "windows":
        portable = PortableExecutable(executable)
        assert portable.subsystem == CONSOLE
        # It does no networking.
        assert needed_libraries(platform, portable) <= SYSTEM_LIBRARIES - {"winhttp.dll"}
    else:
        listed = tool("readelf", "--wide", "--dynamic", executable)
        needed = re.findall(r"\(NEEDED\).*\[(.*?)\.so", listed)
        assert not [name for name in needed if name.startswith(("libpelham", "libssl", "libcpprest"))]


# Calls that may load a library or access a drive, either of which can open an error box.
MAY_OPEN_A_BOX = re.compile(r"LoadLibrary|CreateFile|FileAttributes|FindFirst|^SH|PathIs|CryptAcquire|LoadString")
FAIL_CRITICAL_ERRORS, NO_OPEN_FILE_ERROR_BOX = 0x0001, 0x8000


@pytest.mark.parametrize("program", ["program_name", "status_name"])
def test_nothing_can_open_a_box_before_the_error_mode_is_set(platform, machine, program):
    """Checks the order of the program's own calls in Wine's relay trace."""
    if platform.name == "linux":
        pytest.skip("Linux has no error boxes")
    if platform.runs_here:
        pytest.skip("only Wine can trace the program's calls")
    told = subprocess.run(
        # With one argument the uploader only reads the settings of its log.
        platform.command(platform.bin_folder / getattr(platform, program), [machine.native()]),
        env={**machine.environment, "WINEDEBUG": "+relay"},
        stdin=subprocess.DEVNULL,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE,
        timeout=120,
    ).stderr.decode("ascii", "replace")
    # The program is loaded at its preferred address: Wine runs without address space randomization.
    calls = re.findall(r":Call \S+?\.(\w+)\((\w*).*\) ret=14\w{7}$", told, re.MULTILINE)
    names = [name for name, _ in calls]
    assert [name for name in names if MAY_OPEN_A_BOX.search(name)], "nothing is seen"
    mode = int(calls[names.index("SetErrorMode")][1], 16)
    assert mode & FAIL_CRITICAL_ERRORS and mode & NO_OPEN_FILE_ERROR_BOX
    earlier = names[: names.index("SetErrorMode")]
    assert not [name for name in earlier if MAY_OPEN_A_BOX.search(name)]
    modes = [int(mode, 16) for name, mode in calls if name == "SetErrorMode"]
    assert all(mode & FAIL_CRITICAL_ERRORS and mode & NO_OPEN_FILE_ERROR_BOX for mode in modes)


def test_windows_program_uses_aslr_and_dep(portable):
    wanted = HIGH_ENTROPY_VA | DYNAMIC_BASE | NX_COMPATIBLE
    assert portable.characteristics & wanted == wanted
    assert ".reloc" in portable.sections
    both = EXECUTABLE | WRITABLE
    assert not [name for name, flags in portable.sections.items() if flags & both == both]


def test_windows_program_has_version_information(platform, windows_program):
    name, portable = windows_program
    abi, purpose = WHAT_FOR[platform.run_time]
    ((place, content),) = portable.resources(RT_VERSION).items()
    assert place == (1, US_ENGLISH)
    version = project_version()
    numbers, texts = version_strings(content)
    wanted = (*map(int, version.split(".")), 0)
    assert numbers == (wanted, wanted)
    assert texts == {
        "Comments": purpose,
        "CompanyName": "The KydLogUploader authors",
        "FileDescription": PROGRAMS[name],
        "FileVersion": version,
        "InternalName": name,
        "LegalCopyright": "Copyright (c) 2026 The KydLogUploader authors. MIT License.",
        "OriginalFilename": f"{name}.exe",
        "ProductName": "KydLogUploader",
        "ProductVersion": f"{version} ({abi})",
    }


def test_windows_program_has_a_manifest(windows_program):
    name, portable = windows_program
    ((place, content),) = portable.resources(RT_MANIFEST).items()
    assert place[0] == MANIFEST_OF_THE_PROCESS
    manifest = xml.etree.ElementTree.fromstring(content)
    spaces = {
        "a": "urn:schemas-microsoft-com:asm.v1",
        "b": "urn:schemas-microsoft-com:asm.v3",
        "c": "urn:schemas-microsoft-com:compatibility.v1",
    }
    identity = manifest.find("a:assemblyIdentity", spaces).attrib
    assert (identity["name"], identity["version"]) == (name, project_version() + ".0")
    (level,) = manifest.iterfind(".//b:requestedExecutionLevel", spaces)
    assert level.attrib == {"level": "asInvoker", "uiAccess": "false"}
    assert [system.get("Id") for system in manifest.iterfind(".//c:supportedOS", spaces)] == [
        "{35138b9a-5d96-4fbd-8e2d-a2440225f93a}",  # Windows 7
        "{4a2f28e3-53b9-4441-ba9c-d69d4a4a6e38}",  # 8
        "{1f676c76-80e1-4239-95bb-83d0f6d0da78}",  # 8.1
        "{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}",  # 10 and 11
    ]
    settings = manifest.find("b:application/b:windowsSettings", spaces)
    # No activeCodePage: narrow strings keep the machine's code page.
    assert [(child.tag.split("}")[1], child.text) for child in settings] == [
        ("longPathAware", "true")
    ]


def test_windows_program_keeps_its_text_resources(portable):
    # Identifiers 101 to 103 are the sixth to eighth text of the seventh block.
    ((place, content),) = portable.resources(RT_STRING).items()
    assert place[0] == 7
    texts, at = [], 0
    for _ in range(16):
        (length,) = struct.unpack_from("<H", content, at)
        texts.append(content[at + 2 : at + 2 + 2 * length].decode("utf-16-le"))
        at += 2 + 2 * length
    begins = ["<< Upload Result >>\r\n", " [User folder information]\r\n", " [Error file information]\r\n"]
    assert [text[: len(begin)] for text, begin in zip(texts[5:8], begins)] == begins
    assert not any(texts[:5]) and not any(texts[8:])


def test_windows_program_has_no_icon_or_dialog(windows_program):
    _, portable = windows_program
    assert portable.resource_kinds() <= {RT_STRING, RT_VERSION, RT_MANIFEST}


def test_indirect_calls_and_returns_are_guarded(platform, windows_program):
    if platform.run_time != "Visual C++":
        pytest.skip("MinGW-w64 supports neither guard")
    _, portable = windows_program
    assert portable.characteristics & GUARD_CF
    wanted = CF_INSTRUMENTED | CF_FUNCTION_TABLE
    assert portable.guards()[1] & wanted == wanted
    assert portable.extended_characteristics() & CET_COMPATIBLE


def test_stack_is_guarded(platform, executable):
    if platform.run_time == "Visual C++":
        assert PortableExecutable(executable).guards()[0]
        return
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
        pytest.skip("this build has its own checks, or none")
    assert re.search(r"__\w+_chk@", tool("nm", "--dynamic", executable))


def test_linux_program_finds_its_own_libraries_beside_itself_only(elf):
    assert re.findall(r"\((?:RUNPATH|RPATH)\).*\[(.*)\]", elf) == ["$ORIGIN"]
