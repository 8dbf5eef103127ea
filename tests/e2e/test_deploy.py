"""The files that administrators deploy: each is used and must have the documented effect."""

import configparser
import os
import re
import shlex
import shutil
import subprocess
import xml.etree.ElementTree

import pytest

from .harness import parse_log
from .platforms import ROOT

DEPLOY = ROOT / "deploy"
SETTINGS = DEPLOY / "diagnostic-log"
POLICIES = DEPLOY / "windows/PolicyDefinitions/KydLogUploader.admx"
POLICY_TEXTS = DEPLOY / "windows/PolicyDefinitions/en-US/KydLogUploader.adml"
TASK = DEPLOY / "windows/KydLogUploader.task.xml"
SERVICE = DEPLOY / "linux/kydloguploader.service"
TIMER = DEPLOY / "linux/kydloguploader.timer"
CHECK = DEPLOY / "linux/check-settings"
DEFAULTS = DEPLOY / "linux/kydloguploader.default"

POLICY_SPACE = {"p": "http://schemas.microsoft.com/GroupPolicy/2006/07/PolicyDefinitions"}
TASK_SPACE = {"t": "http://schemas.microsoft.com/windows/2004/02/mit/task"}


# The diagnostic log.


@pytest.fixture
def default_log(machine):
    """The diagnostic log in its default folder, which on Windows all tests share."""
    folder = machine.platform.default_log_base(machine.sysroot) / "DebugSSO"
    shutil.rmtree(folder, ignore_errors=True)
    yield folder / "KydLogUploader.log"
    machine.no_settings()
    shutil.rmtree(folder, ignore_errors=True)


def lines_in(log):
    return len(parse_log(log.read_bytes())) if log.exists() else 0


def grows(machine, log):
    """Whether a run writes to the log."""
    before = lines_in(log)
    machine.run()
    return lines_in(log) > before


def use(machine, name):
    machine.platform.import_registry_file(SETTINGS / name, machine.sysroot)


def test_files_switch_the_log_on_and_off(machine, default_log):
    assert not grows(machine, default_log)
    use(machine, "on.reg")
    assert grows(machine, default_log)
    use(machine, "off.reg")
    assert not grows(machine, default_log)
    use(machine, "on.reg")
    assert grows(machine, default_log)
    use(machine, "default.reg")
    assert not grows(machine, default_log)


def edited(machine, name, *changes):
    """Copies a settings file and makes the changes that its comments describe."""
    text = (SETTINGS / name).read_text("ascii")
    for old, new in changes:
        assert old in text
        text = text.replace(old, new)
    path = machine.folder / name
    path.write_text(text, "ascii", newline="\r\n")
    return path


def test_folder_and_size_are_used_without_their_semicolons(machine, default_log):
    base = machine.platform.native_path(machine.diagnostic_base).replace("\\", "\\\\")
    example = r"D:\\Logs" if machine.platform.name == "windows" else "/srv/log"
    path = edited(
        machine, "on.reg",
        (f';"OutputLogDir"="{example}"', f'"OutputLogDir"="{base}"'),
        (';"OutputLogSize"=dword:00a00000', '"OutputLogSize"=dword:00000001'),
    )
    machine.platform.import_registry_file(path, machine.sysroot)
    assert grows(machine, machine.diagnostic_log)
    # The log is larger than the limit of one byte, so each run starts a new file.
    machine.run()
    older = machine.diagnostic_log.with_name(machine.diagnostic_log.name + ".bak")
    assert older.exists()
    assert not default_log.exists()
    # off.reg keeps the folder; default.reg removes it.
    use(machine, "off.reg")
    assert not grows(machine, machine.diagnostic_log)
    if machine.platform.name == "windows":  # on Linux each file replaces all settings
        use(machine, "on.reg")
        machine.diagnostic_log.unlink()
        assert grows(machine, machine.diagnostic_log)
        use(machine, "default.reg")
    use(machine, "on.reg")
    assert grows(machine, default_log)


def test_settings_files_are_as_windows_writes_them():
    for path in SETTINGS.iterdir():
        content = path.read_bytes()
        content.decode("ascii")
        assert content.startswith(b"Windows Registry Editor Version 5.00\r\n\r\n[") or (
            content.startswith(b"Windows Registry Editor Version 5.00\r\n\r\n;")
        )
        assert content.endswith(b"\r\n") and b"\n" not in content.replace(b"\r\n", b"")


# Group Policy.


@pytest.fixture(scope="module")
def policies():
    return xml.etree.ElementTree.parse(POLICIES).getroot()


@pytest.fixture(scope="module")
def policy_texts():
    return xml.etree.ElementTree.parse(POLICY_TEXTS).getroot()


def policy_named(policies, name):
    return next(one for one in policies.iterfind(".//p:policy", POLICY_SPACE) if one.get("name") == name)


def values_that_the_program_reads():
    """Returns (key, name) to type, from the sources."""
    settings = "".join((ROOT / f"debuglog/log_settings.{ending}").read_text("utf-8") for ending in ("h", "cpp"))
    legacy = (ROOT / "debuglog/cdebuglog.cpp").read_text("utf-8")
    key = re.search(r'kSettingsKey\[\] = L"(.*?)"', settings)[1].replace("\\\\", "\\")
    legacy_key = re.search(r'kLegacyKey\[\] = L"(.*?)"', legacy)[1].replace("\\\\", "\\")
    found = {}
    for kind, name in re.findall(r'Query(Dword|Text)\(\*?key, L"(\w+)"\)', settings):
        found[key, name] = {"Dword": "decimal", "Text": "text"}[kind]
    for name in re.findall(r'Query\(L"(\w+)"\)', legacy):
        found[legacy_key, name] = "decimal"
    return found


def test_policies_set_what_the_program_reads(policies):
    found = {}
    for policy in policies.iterfind(".//p:policy", POLICY_SPACE):
        assert policy.get("class") == "Machine"
        if policy.get("valueName"):
            kinds = {value.tag.split("}")[1] for side in ("enabledValue", "disabledValue")
                     for value in policy.find(f"p:{side}", POLICY_SPACE)}
            (found[policy.get("key"), policy.get("valueName")],) = kinds
        for element in policy.iterfind("p:elements/*", POLICY_SPACE):
            kind = element.tag.split("}")[1]
            # These would change the value's type, and the program ignores other types.
            assert not {"expandable", "storeAsText", "key"} & set(element.attrib)
            found[policy.get("key"), element.get("valueName")] = kind
    assert len(found) == 4
    assert found == values_that_the_program_reads()


def references(root, kind):
    pattern = re.compile(rf"\$\({kind}\.(\w+)\)")
    return [
        match for element in root.iter() for value in element.attrib.values()
        for match in pattern.findall(value)
    ]


def test_every_text_and_presentation_of_the_policies_is_there(policies, policy_texts):
    strings = [one.get("id") for one in policy_texts.iterfind(".//p:string", POLICY_SPACE)]
    assert len(strings) == len(set(strings))
    assert set(references(policies, "string")) == set(strings)
    for string in policy_texts.iterfind(".//p:string", POLICY_SPACE):
        assert string.text.strip()
    presentations = {
        one.get("id"): one for one in policy_texts.iterfind(".//p:presentation", POLICY_SPACE)
    }
    assert sorted(references(policies, "presentation")) == sorted(presentations)
    boxes = {"text": "textBox", "decimal": "decimalTextBox"}
    for policy in policies.iterfind(".//p:policy", POLICY_SPACE):
        elements = {
            one.get("id"): boxes[one.tag.split("}")[1]]
            for one in policy.iterfind("p:elements/*", POLICY_SPACE)
        }
        name = re.fullmatch(r"\$\(presentation\.(\w+)\)", policy.get("presentation", ""))
        shown = {
            one.get("refId"): one.tag.split("}")[1] for one in (presentations[name[1]] if name else ())
        }
        assert shown == elements


def test_policies_refer_to_what_they_define(policies, policy_texts):
    for file in (policies, policy_texts):
        assert (file.get("revision"), file.get("schemaVersion")) == ("1.0", "1.0")
    prefixes = [one.get("prefix") for one in policies.iterfind("p:policyNamespaces/*", POLICY_SPACE)]
    assert prefixes == ["kydloguploader"]  # no other policy file is required
    categories = {one.get("name") for one in policies.iterfind(".//p:category", POLICY_SPACE)}
    parents = {one.get("ref") for one in policies.iterfind(".//p:parentCategory", POLICY_SPACE)}
    assert parents == categories
    definitions = {one.get("name") for one in policies.iterfind(".//p:definition", POLICY_SPACE)}
    for policy in policies.iterfind(".//p:policy", POLICY_SPACE):
        assert policy.find("p:supportedOn", POLICY_SPACE).get("ref") in definitions
    names = [one.get("name") for one in policies.iterfind(".//p:policy", POLICY_SPACE)]
    assert len(names) == len(set(names))


def apply_policies(machine, policies, **chosen):
    """Writes what Group Policy would: True and False enable and disable, other values are entered."""
    text = ""
    for name, choice in chosen.items():
        policy = policy_named(policies, name)
        if isinstance(choice, bool):
            side = policy.find(f"p:{'enabled' if choice else 'disabled'}Value/p:decimal", POLICY_SPACE)
            value_name, value = policy.get("valueName"), f"dword:{int(side.get('value')):08x}"
        else:
            (element,) = policy.iterfind("p:elements/*", POLICY_SPACE)
            value_name = element.get("valueName")
            if element.tag.endswith("decimal"):
                assert int(element.get("minValue")) <= choice <= int(element.get("maxValue"))
                value = f"dword:{choice:08x}"
            else:
                assert len(choice) <= int(element.get("maxLength"))
                value = '"' + choice.replace("\\", "\\\\") + '"'
        text += f'[HKEY_LOCAL_MACHINE\\{policy.get("key")}]\r\n"{value_name}"={value}\r\n\r\n'
    machine.platform.set_registry(text, machine.sysroot)


def test_policies_switch_the_log_on_and_off(machine, policies, default_log):
    apply_policies(machine, policies, OutputLog=True)
    assert grows(machine, default_log)
    apply_policies(machine, policies, OutputLog=False, OutputLogDebug=True)
    assert not grows(machine, default_log)


def test_policies_choose_folder_and_size(machine, policies, default_log):
    base = machine.platform.native_path(machine.diagnostic_base)
    apply_policies(machine, policies, OutputLog=True, OutputLogDir=base, OutputLogSize=1)
    assert grows(machine, machine.diagnostic_log)
    machine.run()
    assert machine.diagnostic_log.with_name(machine.diagnostic_log.name + ".bak").exists()
    assert not default_log.exists()


# Hourly runs.


def run_with(machine, arguments):
    """Runs the program with an example's arguments, with tenant and log directory replaced."""
    assert arguments[0] == "tenant.example.com" and len(arguments) == 2
    machine.account("alice")
    machine.log("alice", "a.log")
    machine.run([machine.tenant, machine.native(), *arguments[2:]])
    assert machine.is_archived("alice", "a.log")


def task_text(root, path):
    return root.find("/".join(f"t:{name}" for name in path.split("/")), TASK_SPACE).text


def test_task_runs_the_program_every_hour():
    content = TASK.read_bytes()
    # No declared encoding: it would have to match the string or file that is passed to the scheduler.
    assert content.startswith(b'<?xml version="1.0"?>') and content.isascii()
    root = xml.etree.ElementTree.fromstring(content)
    trigger = root.find("t:Triggers/t:TimeTrigger", TASK_SPACE)
    # The schema prescribes this order.
    assert [child.tag.split("}")[1] for child in trigger if isinstance(child.tag, str)] == [
        "Enabled", "StartBoundary", "Repetition", "RandomDelay",
    ]
    assert task_text(trigger, "Repetition/Interval") == "PT1H"
    assert task_text(root, "Settings/MultipleInstancesPolicy") == "IgnoreNew"
    assert task_text(root, "Settings/ExecutionTimeLimit") == "PT2H"
    assert task_text(root, "Settings/AllowHardTerminate") == "true"
    assert task_text(root, "Actions/Exec/Command").endswith('\\KydLogUploader.exe"')
    principals = {one.get("id") for one in root.iterfind("t:Principals/t:Principal", TASK_SPACE)}
    assert root.find("t:Actions", TASK_SPACE).get("Context") in principals


def test_arguments_of_the_task_upload(machine, service):
    root = xml.etree.ElementTree.parse(TASK).getroot()
    run_with(machine, shlex.split(task_text(root, "Actions/Exec/Arguments")))


def unit(path):
    """Parses a unit file; repeated keys become a list of values."""
    class Values(dict):
        def __setitem__(self, key, value):
            if key in self and isinstance(value, list):
                self[key].extend(value)
            else:
                super().__setitem__(key, value)

    parser = configparser.RawConfigParser(dict_type=Values, strict=False, delimiters="=")
    parser.optionxform = str
    parser.read_string(path.read_text("ascii"))
    return parser


def test_arguments_of_the_service_upload(machine, service):
    section = unit(SERVICE)["Service"]
    # The unit passes on exactly the variables that the settings define.
    settings = [line.removesuffix("=") for line in DEFAULTS.read_text("ascii").splitlines()
                if line and line[0] != "#"]
    program, *arguments = shlex.split(section["ExecStart"])
    assert program.endswith("/KydLogUploader")
    assert [one.strip("${}") for one in arguments] == settings == ["TENANT", "LOG_DIR"]
    run_with(machine, ["tenant.example.com", "/srv/kydlog"])


@pytest.mark.parametrize("tenant, ok", [
    ("tenant.example.com", True), ("tenant.example.com:8443", True), ("[::1]:8443", True),
    ("", False), ("https://tenant.example.com", False), ("a b", False), ("a/../b", False), ('"a"', False),
    ("a\nb", False), ("größe.example.com", False),
])
def test_settings_are_checked_before_the_program_starts(tmp_path, tenant, ok):
    log_dir = tmp_path / "kyd 'log' $HOME größe"
    log_dir.mkdir()
    finished = subprocess.run(
        [CHECK], env={**os.environ, "TENANT": tenant, "LOG_DIR": os.fspath(log_dir)}, check=False,
        capture_output=True, text=True, timeout=60,
    )
    if ok:
        assert (finished.returncode, finished.stdout, finished.stderr) == (0, "", "")
    else:
        assert (finished.returncode, finished.stdout) == (78, "")
        assert finished.stderr.startswith("TENANT ")


def test_service_runs_once():
    section = unit(SERVICE)["Service"]
    assert section["Type"] == "oneshot"
    assert section["TimeoutStartSec"] == "2h"
    timer = unit(TIMER)
    assert timer["Timer"]["OnCalendar"] == "hourly"
    assert timer["Timer"]["Persistent"] == "yes"
    assert timer["Install"]["WantedBy"] == "timers.target"
    assert TIMER.stem == SERVICE.stem


def test_units_are_valid(platform, tmp_path):
    if platform.name == "windows":
        pytest.skip("systemd is Linux only")
    analyze = shutil.which("systemd-analyze")
    if analyze is None:
        pytest.skip("systemd-analyze is not installed")
    text = SERVICE.read_text("ascii")
    for installed, here in (("/usr/sbin/KydLogUploader", platform.bin_folder / platform.program_name),
                            ("/usr/lib/kydloguploader/check-settings", CHECK)):
        assert f"={installed}" in text
        text = text.replace(installed, os.fspath(here))
    units = [tmp_path / SERVICE.name, tmp_path / TIMER.name]
    units[0].write_text(text, "ascii")
    shutil.copy2(TIMER, units[1])
    finished = subprocess.run(
        [analyze, "verify", "--man=no", *units], capture_output=True, text=True, timeout=60, check=False
    )
    assert (finished.returncode, finished.stderr) == (0, "")
