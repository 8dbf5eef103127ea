"""The commands in the documents, and how each is checked.

A code block contains commands if it is indented or fenced as sh, bat or powershell; every fence must name
its language. Each program has a judge, which runs the command or checks that its options and names exist.
Commands that can be neither run nor checked here are in RUN_ELSEWHERE, with the test that runs them, or in
SHOWN_ONLY, with a reason. An unknown command is a failure.

Inline code with several words is taken for a command if its first word could be a program.
"""

import functools
import json
import os
import re
import shlex
import shutil
import subprocess
import sys
import tomllib
from dataclasses import dataclass
from pathlib import Path

from .markdown import ROOT, documents, tracked_files

COMMAND_LANGUAGES = ("indented", "sh", "bat", "powershell")
OTHER_LANGUAGES = ("text", "json", "cpp", "cmake", "mermaid", "ini", "markdown", "xml")

# Commands that change the machine, or that it does not have, with the test that runs each: a file, and the
# text of the call in it.
RUN_ELSEWHERE = {
    "reg import on.reg": ("tests/package/test_msi.py", '"reg", "import", installed.folder / "deploy/diagnostic-log/on.reg"'),
    "reg import off.reg": ("tests/e2e/test_deploy.py", '"off.reg"'),
    "dpkg -i kydloguploader_1.0.0-1+deb12_amd64.deb": ("tests/package/debian_machine.py", '"--install", "/root/new.deb"'),
    "dpkg -r": ("tests/package/test_debian_machine.py", '"dpkg", "-r", "kydloguploader"'),
    "dpkg -P": ("tests/package/test_debian_machine.py", '"dpkg", "-P", "kydloguploader"'),
    "systemctl enable --now kydloguploader.timer":
        ("tests/package/test_debian_machine.py", '"systemctl", "enable", "--now", TIMER'),
    "systemctl --failed": ("tests/package/test_debian_machine.py", '"systemctl", "--failed"'),
    "journalctl -u kydloguploader": ("tests/package/test_debian_machine.py", '"journalctl", "-u", "kydloguploader"'),
    "cd /usr/share/doc/kydloguploader/examples":
        ("tests/package/test_debian_machine.py", 'examples = "/usr/share/doc/kydloguploader/examples"'),
    "install -D -m 644 kydloguploader.sysusers.conf /etc/sysusers.d/kydloguploader.conf":
        ("tests/package/test_debian_machine.py", '"/etc/sysusers.d/kydloguploader.conf"'),
    "systemd-sysusers": ("tests/package/test_debian_machine.py", '"systemd-sysusers"'),
    "install -D -m 644 user.conf /etc/systemd/system/kydloguploader.service.d/user.conf":
        ("tests/package/test_debian_machine.py", '"/etc/systemd/system/kydloguploader.service.d/user.conf"'),
    "systemctl daemon-reload": ("tests/package/test_debian_machine.py", '"systemctl", "daemon-reload"'),
    "install -d -o kydloguploader -m 750 /var/log/DebugSSO":
        ("tests/package/test_debian_machine.py", '"install", "-d", "-o", "kydloguploader", "-m", "750", "/var/log/DebugSSO"'),
    "KydUploadStatus /srv/kydlog --check":
        ("tests/package/test_debian_machine.py", '"KydUploadStatus", "/srv/kydlog", "--check"'),
    "runuser -u kydloguploader -- KydUploadStatus /srv/kydlog --check":
        ("tests/package/test_debian_machine.py", '"runuser", "-u", "kydloguploader", "--"'),
    **dict.fromkeys((
        r"msiexec /i KydLogUploader-1.0.0-windows-x64-msvc.msi /qn TENANT=tenant.example.com LOGDIR=C:\KydLog",
        r"msiexec /i KydLogUploader-1.0.0-windows-x64-msvc.msi /qn /l*v KydLogUploader.log TENANT=tenant.example.com"
        r" LOGDIR=C:\KydLog",
        "msiexec /x",
    ), ("tests/package/windows_machine.py", """f'msiexec {how} "Z:{package}" /qn /l*v C:\\\\msi.log""")),
    **dict.fromkeys((
        r"schtasks /Create /F /TN KydLogUploaderCheck /RU SYSTEM /SC ONCE /ST 00:00 /TR"
        r' "cmd /c \"%ProgramFiles%\Veltrane\KydLogUploader\KydUploadStatus.exe\" C:\KydLog --check'
        r' >C:\Windows\KydLogUploaderCheck.txt 2>&1"',
        "schtasks /Run /TN KydLogUploaderCheck",
        "schtasks /Delete /F /TN KydLogUploaderCheck",
    ), ("tests/package/test_msi.py", "def test_check_runs_as_the_guide_says(")),
    r"python tests\run.py --platform msvc": (".github/workflows/ci.yml", "python tests/run.py --platform msvc"),
    "sha256sum --check SHA256SUMS": ("tests/package/test_contents.py", '"sha256sum", "--check", "--strict", "SHA256SUMS"'),
    "osslsigncode verify": ("tests/package/test_signing.py", '"osslsigncode", "verify"'),
    "curl --data-binary": ("bench/run.py", "--data-binary"),
}

# Commands that no test runs, each with the reason.
SHOWN_ONLY = {
    r'"C:\Program Files\Veltrane\KydLogUploader\Uninstall.exe" /S _?=C:\Program Files\Veltrane\KydLogUploader':
        "of the setup program, which is no longer built",
    r'schtasks /Create /TN "Veltrane\KydLogUploader" /XML KydLogUploader.task.xml':
        "Wine's Task Scheduler does not keep the arguments of a task; tests/e2e/test_deploy.py reads the file",
    r"type C:\Windows\KydLogUploaderCheck.txt": "shows a file",
    r"del C:\Windows\KydLogUploaderCheck.txt": "removes a file",
    "dir /x": "lists file names",
    "apt-get install": "fetches Debian's packages; the machines of the tests have no network",
    "net helpmsg": "Wine's net does not have it",
    "xwin splat": "fetches Microsoft's SDK, whose licence its user has to accept",
}

# First words of inline code that is not a command: declarations, targets, package lists, messages, settings.
NO_COMMANDS = {"build", "const", "exception", "g++", "http", "ssl_session_cache", "static", "uploader"}

MOST_SECONDS = 60


@dataclass(frozen=True)
class Shown:
    """A command in a document: a line with its continuation lines."""

    document: str
    line: int
    text: str

    def __str__(self):
        return f"{self.document}:{self.line}: {self.text}"


def _without_comment(line: str) -> str:
    return re.sub(r"(^|\s{2,})#.*$", "", line).rstrip()


def _commands_of(document, block):
    text, start = "", 0
    for number, line in enumerate(block.lines, block.line + (block.language != "indented")):
        line = _without_comment(line)
        if not line.strip():
            continue
        start = start if text else number
        text = f"{text} {line.strip()}".strip()
        if text.endswith("\\"):
            text = text[:-1].strip()
        elif not text.endswith("|"):
            yield Shown(document.name, start, text)
            text = ""
    assert not text, f"{document.name}:{start}: this command is not complete"


def shown_commands() -> list[Shown]:
    return [command for document in documents().values() for block in document.blocks
            if block.language in COMMAND_LANGUAGES for command in _commands_of(document, block)]


def mentioned_commands() -> list[Shown]:
    """Returns the commands in inline code."""
    return [Shown(document.name, line, text) for document in documents().values()
            for line, text in document.code_spans()
            if (first := re.match(r"((?:\./|/usr/)?[a-z][\w./+-]*|Kyd\w+) ", text)) and first[1] not in NO_COMMANDS]


def _need(condition, what):
    assert condition, what


def _run(command, **options):
    return subprocess.run(
        command, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=MOST_SECONDS,
        check=False, **options)


# The development script.


# Commands that pass their options to a script.
SCRIPTS = {"test": "tests/run.py", "soak": "tests/run.py", "package": "packaging/build.py"}


@functools.cache
def dev_usage() -> dict[str, tuple[str, str]]:
    """Returns the help of `./dev` for each command: its arguments and the complete text."""
    finished = _run([ROOT / "dev"])
    assert finished.returncode == 0, finished.stderr
    found = {match[1]: (match[2], match[0]) for match in re.finditer(
        r"^  (\w+)((?: \S+)*).*\n(?:   .*\n)*", finished.stdout, re.MULTILINE)}
    assert len(found) >= 8, finished.stdout
    return found


@functools.cache
def _words_of(script: str) -> set[str]:
    """Returns the words of the script's help; argparse breaks lines after hyphens in names."""
    finished = _run([sys.executable, ROOT / script, "--help"])
    assert finished.returncode == 0, finished.stderr
    return set(re.findall(r"[\w-]+", re.sub(r"-\n +", "-", finished.stdout)))


def _options_of(script: str) -> set[str]:
    return {word for word in _words_of(script) if word.startswith("--")}


def _fits_dev_placeholder(value: str, wanted: str) -> bool:
    if "|" in wanted:
        return value in wanted.split("|")
    if wanted == "seconds":
        return value.isdecimal()
    if wanted == "ids...":
        listed = tomllib.loads((ROOT / "tests/mutation/mutants.toml").read_text("utf-8"))
        return value in {one["id"] for one in listed["mutant"]}
    if wanted == "cases...":
        return value in _words_of("bench/run.py")
    if wanted == "folders...":
        return any(name.startswith(f"{value.rstrip('/')}/") for name in tracked_files())
    return False


def judge_dev(arguments, _):
    usage = dev_usage()
    command, *rest = arguments
    _need(command in usage, f"./dev has no command {command}")
    wanted, text = usage[command]
    if command in SCRIPTS:
        rest = rest[: rest.index("--")] if "--" in rest else rest
        known = _options_of(SCRIPTS[command]) | set(re.findall(r"--[\w-]+", text))
        for argument in (one.strip("[]") for one in rest):
            if argument.startswith("-"):
                _need(argument.split("=")[0] in known, f"./dev {command} has no option {argument}")
        return
    options = set(re.findall(r"--[\w-]+", wanted))
    places = [one for one in re.findall(r"\[([^\]\[]+)\]", wanted) if not one.startswith("--")]
    takes_value = set(re.findall(r"\[(--[\w-]+) [^\]]+\]", wanted))
    skip = False
    for argument in rest:
        if skip:
            skip = False
        elif argument.startswith("-"):
            _need(argument.split("=")[0] in options, f"./dev {command} has no option {argument}")
            skip = argument in takes_value
        else:
            _need(any(_fits_dev_placeholder(argument, place) for place in places),
                  f"./dev {command} takes {wanted or 'nothing'}, not {argument}")


# CMake.


@functools.cache
def presets(kind: str) -> set[str]:
    every = json.loads((ROOT / "CMakePresets.json").read_text("utf-8"))[kind]
    return {one["name"] for one in every if not one.get("hidden")}


@functools.cache
def _cmake_variables() -> set[str]:
    text = "".join((ROOT / name).read_text("utf-8") for name in tracked_files()
                   if name.endswith((".cmake", "CMakeLists.txt")))
    return set(re.findall(r"(?:option\(|set\()(KYD_\w+)", text))


def judge_cmake(arguments, _):
    building = "--build" in arguments
    at = 0
    while at < len(arguments):
        name, _, value = arguments[at].partition("=")
        if name == "--list-presets":
            listed = _run(["cmake", arguments[at]], cwd=ROOT)
            _need(listed.returncode == 0, listed.stderr)
        elif name == "--preset":
            at += not value
            chosen = value or arguments[at]
            kind = "buildPresets" if building else "configurePresets"
            _need(chosen in presets(kind), f"there is no preset {chosen} in {kind}")
        elif name == "--build":
            if at + 1 < len(arguments) and not arguments[at + 1].startswith("-"):
                at += 1
        elif name == "-S":
            at += 1
            _need(f"{arguments[at]}/CMakeLists.txt" in tracked_files(), f"{arguments[at]}: no project")
        elif name in ("-G", "-B", "--toolchain", "--config"):
            at += 1
        elif name.startswith("-D"):
            _need(name[2:].partition(":")[0] in _cmake_variables(), f"no setting {name[2:]}")
        else:
            raise AssertionError(f"cmake with {arguments[at]}?")
        at += 1


# Programs of this project.


def _tree(folder: Path) -> Path:
    for name in ("Upload/alice", "Archive/alice", "LogWork/alice", "UploadResult"):
        (folder / "LogDir" / name).mkdir(parents=True, exist_ok=True)
    return folder / "LogDir"


def judge_status(arguments, place):
    program = place.programs / "KydUploadStatus"
    if arguments and arguments[0].startswith("<"):
        # A synopsis lists exactly the options of the help.
        shown = set(re.findall(r"--[\w-]+(?: [A-Z]+)?", " ".join(arguments)))
        helped = set(re.findall(r"--[\w-]+(?: [A-Z]+\b)?", _run([program, "--help"]).stdout.split("Exit")[0]))
        _need(shown == helped - {"--help", "--version"}, f"the help has {sorted(helped)}")
        return
    tree = _tree(place.folder)
    given = [argument.replace("LogDir", os.fspath(tree)) for argument in arguments]
    finished = _run([program, *given], cwd=place.folder)
    _need(finished.returncode == 0, f"{finished.returncode}: {finished.stdout}{finished.stderr}")
    _need(finished.stdout, "nothing was printed")
    if "--html" in arguments:
        page = place.folder / arguments[arguments.index("--html") + 1]
        _need(page.read_bytes().startswith(b"<!DOCTYPE html>"), "no page was written")
    if "--openmetrics" in arguments:
        metrics = place.folder / arguments[arguments.index("--openmetrics") + 1]
        _need(metrics.read_bytes().endswith(b"\n# EOF\n"), "no metrics were written")


def _run_uploader(place, arguments):
    """Runs the program with the settings below the place's folder; returns the diagnostic log."""
    (place.folder / "run/lock").mkdir(parents=True, exist_ok=True)
    (place.folder / "var/log").mkdir(parents=True, exist_ok=True)
    environment = {**os.environ, "KEYWARD_SYSROOT": os.fspath(place.folder)}
    finished = _run([place.programs / "KydLogUploader", *arguments], env=environment, cwd=place.folder)
    _need((finished.returncode, finished.stdout, finished.stderr) == (0, "", ""), str(finished))
    log = place.folder / "var/log/DebugSSO/KydLogUploader.log"
    return log.read_text("utf-8-sig") if log.exists() else ""


def judge_uploader(arguments, place):
    names = [re.fullmatch(r"<\w+>|\[\w+\]|[\w.:/\\-]+", argument) for argument in arguments]
    _need(all(names) and 2 <= len(arguments) <= 3, "two arguments, or three")
    judge_install(["-D", "-m", "644", "on.reg", "/etc/keyward/registry.reg"], place)
    log = _run_uploader(place, ["localhost:1", _tree(place.folder), *(
        one.strip("[]") for one in arguments[2:])])
    _need("*** EXECUTE LOGUPLOAD ***" in log, log)
    _need(("Force Flush" in log) == (len(arguments) == 3), log)


def judge_seal(arguments, place):
    """Reads from a pipe the output of the printf before it."""
    own = place.folder / "bin"
    own.mkdir()
    shutil.copy2(place.programs / "keyward-seal", own)
    _tree(place.folder)
    finished = subprocess.run(
        [own / "keyward-seal", *arguments], input=place.piped, cwd=place.folder, capture_output=True,
        timeout=MOST_SECONDS, check=False)
    _need(finished.returncode == 0, finished.stderr)
    _need((place.folder / arguments[-1]).stat().st_size > len(place.piped), "no credential file")


def judge_printf(arguments, place):
    finished = subprocess.run(["printf", *arguments], capture_output=True, check=True)
    place.piped = finished.stdout


# Other commands.


def judge_python(arguments, _):
    _need(arguments[:2] == ["-m", "pytest"], "only pytest is supported")
    folder = arguments[2]
    conftest = (ROOT / folder / "conftest.py").read_text("utf-8")
    known = set(re.findall(r'addoption\(\s*"(--[\w-]+)"', conftest))
    for argument in arguments[3:]:
        if argument.startswith("--"):
            _need(argument.split("=")[0] in known, f"{folder} has no option {argument}")


def judge_install(arguments, place):
    """Installs below the place's folder; a run there must then write a diagnostic log."""
    *options, source, target = arguments
    _need(options == ["-D", "-m", "644"] and target.startswith("/"), "unsupported options of install")
    (found,) = (name for name in tracked_files()
                if name.startswith("deploy/") and name.endswith(f"/{source}"))
    finished = _run(["install", *options, ROOT / found, f"{place.folder}{target}"])
    _need(finished.returncode == 0, finished.stderr)
    _need("EXECUTE LOGUPLOAD" in _run_uploader(place, ["localhost:1", _tree(place.folder)]),
          "this does not turn on the log")


def judge_other_debian(arguments, place):
    release, *command = arguments
    (known,) = re.findall(r'^readonly known="(.*)"$', (ROOT / "tests/other_debian").read_text("utf-8"), re.MULTILINE)
    _need(release in known.split(), f"tests/other_debian knows {known}")
    judge(shlex.join(command), place)


JUDGES = {
    "./dev": judge_dev,
    "cmake": judge_cmake,
    "KydUploadStatus": judge_status,
    "KydLogUploader": judge_uploader,
    "keyward-seal": judge_seal,
    "printf": judge_printf,
    "tests/other_debian": judge_other_debian,
    "/usr/bin/python3": judge_python,
    "install": judge_install,
}


@dataclass
class Place:
    """Where a command is run: the programs, a separate folder, and the input from a pipe."""

    programs: Path
    folder: Path
    piped: bytes = b""


def judge(text: str, place: Place) -> None:
    """Runs or checks a command; raises AssertionError if it is unknown or wrong."""
    if text in RUN_ELSEWHERE or text in SHOWN_ONLY:
        return
    lexer = shlex.shlex(text.replace("<", "\\<").replace(">", "\\>"), posix=True, punctuation_chars="|&;")
    lexer.whitespace_split = True
    words: list[str] = []
    for word in [*lexer, "&&"]:
        if word not in ("&&", "|", ";"):
            words.append(word)
            continue
        program, *arguments = words
        _need(program in JUDGES, f"unknown command {program}")
        JUDGES[program](arguments, place)
        words = []
