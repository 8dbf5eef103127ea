"""The platforms on which the program is started, as a test session sees them.

A platform knows where its program is, how to start it and where its machine-wide settings go. It works on
a private copy of the program's folder, so that no test touches the build.
"""

import os
import shutil
import subprocess
import time
from pathlib import Path

import wine
from service.certificates import AUTHORITY_NAMES

ROOT = Path(__file__).resolve().parents[2]
REGISTRY_HEADER = "Windows Registry Editor Version 5.00\r\n\r\n"
PRODUCT_KEY = r"SOFTWARE\Veltrane\Veltrane Keyward"

_PROXIES = {"http_proxy", "https_proxy", "all_proxy", "no_proxy"}


def _clean_environment():
    """Returns the session's environment without variables that could redirect requests."""
    return {name: value for name, value in os.environ.items() if name.lower() not in _PROXIES}


class Platform:
    """Common base. `folder` belongs to the session; `bin_folder` holds the build."""

    name = ""
    separator = ""
    program_name = ""
    status_name = ""
    companion_name = ""
    configuration_name = ""
    seal_name = "keyward-seal"
    run_time = ""  # the compiler whose run-time is used; Windows only
    runs_here = True  # whether the build's programs run on the test machine itself
    noise = ()  # prefixes of the lines that the platform itself writes

    def __init__(self, folder, bin_folder, native_bin_folder):
        self.folder = Path(folder)
        self.bin_folder = Path(bin_folder)
        self.native_bin_folder = Path(native_bin_folder)
        self.program_folder = self.folder / "program"

    @classmethod
    def missing(cls, bin_folder, native_bin_folder):
        """Returns the first missing file of the build, or None."""
        needed = [
            Path(bin_folder) / cls.program_name,
            Path(bin_folder) / cls.companion_name,
            Path(bin_folder) / cls.configuration_name,
            Path(native_bin_folder) / cls.seal_name,
        ]
        return next((path for path in needed if not path.exists()), None)

    def is_built_with(self, *instruments):
        """Whether the build has one of these instruments: "asan", "tsan", "gcov"."""
        program = (self.bin_folder / self.program_name).read_bytes()
        return any(f"__{instrument}_init".encode() in program for instrument in instruments)

    def start(self):
        """Copies the program and creates the key that its companion and the sealing tool share."""
        self.program_folder.mkdir(parents=True)
        for name in (self.program_name, self.companion_name, self.configuration_name):
            shutil.copy2(self.bin_folder / name, self.program_folder / name)
        # The demo builds only the uploader.
        if (self.bin_folder / self.status_name).exists():
            shutil.copy2(self.bin_folder / self.status_name, self.program_folder)
        sealing = self.folder / "sealing"
        sealing.mkdir()
        shutil.copy2(self.native_bin_folder / self.seal_name, sealing)
        self.seal_tool = sealing / self.seal_name
        self.seal(self.folder / "first.dat", b"{}")
        shutil.copy2(sealing / "Corvid.key", self.program_folder)

    def stop(self):
        """Undoes the changes of `start` outside of the session's folder."""

    def seal(self, path, text):
        """Writes a credential file with exactly this text."""
        subprocess.run(
            [self.seal_tool, "--raw", path], input=text, check=True, timeout=60, capture_output=True
        )

    def variant(self, name):
        """Returns a companion library that lacks one export."""
        return self.bin_folder / "variants" / name / self.companion_name

    def native_path(self, path):
        """Returns a path as the program writes it."""
        raise NotImplementedError

    def command(self, program, arguments):
        raise NotImplementedError

    def environment(self, sysroot):
        raise NotImplementedError

    def own_output(self, output):
        """Returns a program's output without what the platform itself has written."""
        lines = output.splitlines(keepends=True)
        return b"".join(line for line in lines if not line.startswith(self.noise))

    def set_registry(self, text, sysroot):
        """Makes the lines of a registry export the product's only settings on the machine."""
        raise NotImplementedError

    def import_registry_file(self, path, sysroot):
        """Imports a settings file as an administrator would."""
        raise NotImplementedError

    def default_log_base(self, sysroot):
        """Returns where the diagnostic log's folder is created if the settings name no other place."""
        raise NotImplementedError

    def trust(self, authority, sysroot):
        """Makes the machine trust an authority's server certificates."""
        raise NotImplementedError

    def add_client_certificate(self, scope, identity, sysroot):
        """Puts a certificate and its key into the "MY" store of the user, or ("comp") of the machine."""
        raise NotImplementedError

    def forget_certificates(self):
        """Undoes the two functions above where their effect outlasts the test's machine."""

    def search_order(self, folder):
        """Returns the names in a folder in the order in which the program finds them."""
        raise NotImplementedError


class Linux(Platform):
    name = "linux"
    separator = "/"
    program_name = "KydLogUploader"
    status_name = "KydUploadStatus"
    companion_name = "Corvid.so"
    configuration_name = "libpelham.so"
    # A coverage build reports each count that it cannot write, for example when a test makes calls fail.
    noise = (b"profiling:", b"libgcov profiling error:")

    def native_path(self, path):
        return os.fspath(path)

    def command(self, program, arguments):
        return [os.fspath(program), *arguments]

    def environment(self, sysroot):
        environment = _clean_environment()
        environment["KEYWARD_SYSROOT"] = os.fspath(sysroot)
        environment["HOME"] = os.fspath(sysroot / "home")
        environment["SSL_CERT_FILE"] = os.fspath(sysroot / "authorities.pem")
        environment["SSL_CERT_DIR"] = os.fspath(sysroot / "no-authorities")
        return environment

    def set_registry(self, text, sysroot):
        path = sysroot / "etc/keyward/registry.reg"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(REGISTRY_HEADER + text, encoding="utf-8", newline="")

    def import_registry_file(self, path, sysroot):
        target = sysroot / "etc/keyward/registry.reg"
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(path, target)

    def default_log_base(self, sysroot):
        return sysroot / "var/log"

    def trust(self, authority, sysroot):
        with (sysroot / "authorities.pem").open("ab") as authorities:
            authorities.write(authority.identity.certificate_pem)

    def add_client_certificate(self, scope, identity, sysroot):
        base = sysroot / ("home/.config" if scope == "user" else "etc")
        folder = base / "keyward/certs/MY"
        folder.mkdir(parents=True, exist_ok=True)
        (folder / f"{identity.thumbprint}.pem").write_bytes(identity.pem)

    def search_order(self, folder):
        return os.listdir(folder)


class Windows(Platform):
    """The program that Visual Studio has built, on Windows itself, run as an administrator.

    Mutex, registry and certificate stores are machine-wide, so these tests run one after another.
    """

    name = "windows"
    _trusts = "authority"  # the store's name for certificate-import
    separator = "\\"
    program_name = "KydLogUploader.exe"
    status_name = "KydUploadStatus.exe"
    companion_name = "Corvid.dll"
    configuration_name = "pelham.dll"
    seal_name = "keyward-seal.exe"
    run_time = "Visual C++"
    foreign_build = "windows"  # the build whose libraries have another ABI

    def __init__(self, folder, bin_folder, native_bin_folder):
        super().__init__(folder, bin_folder, native_bin_folder)
        self._registry = None
        self._imported = set()  # what certificate-import has added

    def start(self):
        super().start()
        self._import_registry("")

    def stop(self):
        self._import_registry("")
        self.forget_certificates()

    def native_path(self, path):
        return os.fspath(path)

    def command(self, program, arguments):
        return [os.fspath(program), *arguments]

    def environment(self, sysroot):
        return _clean_environment()

    def set_registry(self, text, sysroot):
        if text != self._registry:
            self._import_registry(text)

    def import_registry_file(self, path, sysroot):
        self._registry = None
        self._run("regedit", "/S", self.native_path(path))

    def default_log_base(self, sysroot):
        return Path(os.environ["SystemDrive"] + "\\")

    def trust(self, authority, sysroot):
        self._import_certificate(self._trusts, authority.identity)

    def add_client_certificate(self, scope, identity, sysroot):
        self._import_certificate(scope, identity)

    def forget_certificates(self):
        if self._imported:
            self._imported.clear()
            for name in AUTHORITY_NAMES:
                self._run(self._certificate_import, "remove", name)

    @property
    def _certificate_import(self):
        return os.fspath(self.bin_folder.parent / "tests/certificate-import.exe")

    @property
    def hold_open(self):
        return os.fspath(self.bin_folder.parent / "tests/hold-open.exe")

    @property
    def error_mode_library(self):
        return self.bin_folder.parent / "tests/error-mode.dll"

    def _import_certificate(self, what, identity):
        if (what, identity.thumbprint) in self._imported:
            return
        if not self._imported:
            # Certificates of an earlier session that did not clean up.
            self._imported.add((what, identity.thumbprint))
            self.forget_certificates()
        path = self.folder / f"{identity.thumbprint}.der"
        key = self.folder / f"{path.name}.key"
        path.write_bytes(identity.der)
        key.write_bytes(identity.key_blob)
        try:
            self._run(self._certificate_import, what, self.native_path(path))
        finally:
            path.unlink()
            key.unlink()
        self._imported.add((what, identity.thumbprint))

    def search_order(self, folder):
        return sorted(os.listdir(folder), key=str.upper)

    def _run(self, program, *arguments):
        subprocess.run(
            self.command(program, arguments),
            env=self.environment(None),
            check=True,
            timeout=60,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )

    def _import_registry(self, text):
        path = self.folder / "settings.reg"
        removal = "[-HKEY_LOCAL_MACHINE\\SOFTWARE\\Veltrane]\r\n\r\n"
        path.write_bytes((REGISTRY_HEADER + removal + text).encode("utf-16"))
        self._registry = None
        self._run("regedit", "/S", self.native_path(path))
        self._registry = text


class WindowsMingw(Windows):
    """The Windows program that MinGW-w64 has built, under Wine. The build's Wine prefix is the machine."""

    # Wine's TLS library prints errors of peers and certificates, and a Wine thread may print one when its
    # process ends; Windows does neither.
    noise = (b"GnuTLS error: ", b"wine client error:")
    # Wine 10 removes authorities from the machine's store that are not among the host's.
    _trusts = "user-authority"
    seal_name = Platform.seal_name
    runs_here = False
    run_time = "MinGW-w64"
    foreign_build = "windows-msvc"

    def __init__(self, folder, bin_folder, native_bin_folder, prefix=None):
        super().__init__(folder, bin_folder, native_bin_folder)
        self.prefix = Path(prefix or self.bin_folder.parent / "wineprefix").resolve()
        self._server = wine.Server(self.prefix)

    @classmethod
    def missing(cls, bin_folder, native_bin_folder):
        return super().missing(bin_folder, native_bin_folder) or (
            None if wine.program() else Path("wine64")
        )

    def start(self):
        self._server.__enter__()
        super().start()

    def stop(self):
        super().stop()
        self._server.__exit__()

    def native_path(self, path):
        return "Z:" + os.fspath(path).replace("/", "\\")

    def command(self, program, arguments):
        return wine.command(program, *arguments)

    def environment(self, sysroot):
        return wine.environment(self.prefix, _clean_environment())

    def default_log_base(self, sysroot):
        return self.prefix / "drive_c"


class WindowsMsvc(WindowsMingw):
    """The same program with Visual C++'s ABI, built with clang-cl. Its run-time libraries are Wine's own."""

    run_time = Windows.run_time
    foreign_build = Windows.foreign_build


# By build name.
PLATFORMS = {"linux": Linux, "windows": WindowsMingw, "windows-msvc": WindowsMsvc, "msvc": Windows}


def wait_until(condition, seconds=30):
    """Polls for something without an event of its own, such as a file; returns False on time-out."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.01)
    return True
