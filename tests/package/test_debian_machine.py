"""The Debian package on minimal machines of Debian 12 and 13, each with its own systemd: installed,
configured, run by its units, upgraded, removed and purged."""

import json
import os
import shutil
import subprocess

import pytest
from service.certificates import CertificateFactory
from service.log_service import Account, LogService

from .conftest import RELEASE, ROOT, UNITS, tool
from .debian_machine import RELEASES, DebianMachine, bare_root

NATIVE_BUILD = ROOT / "build/release-linux/bin"
LIBRARIES = ("Corvid.so", "libpelham.so")
PROGRAM_FOLDER = "/usr/lib/kydloguploader"
SETTINGS = "/etc/default/kydloguploader"
SERVICE, TIMER = "kydloguploader.service", "kydloguploader.timer"
LOG = "/var/log/DebugSSO/KydLogUploader.log"
# Ten times the exposure level (0 to 10) of systemd-analyze. The rest is due to root, the network, other
# users' files and a log directory that can be anywhere.
HIGHEST_EXPOSURE = {SERVICE: 25, "with a user": 17}

pytestmark = [
    pytest.mark.skipif(os.geteuid() != 0, reason="namespaces and mounts need root"),
    pytest.mark.skipif(shutil.which("debootstrap") is None, reason="debootstrap is not installed"),
]


# A package built on Debian 13 needs libraries that Debian 12 does not have.
@pytest.fixture(scope="session", params=RELEASES if RELEASE == "12" else RELEASES[1:])
def root(request):
    return bare_root(request.param)


@pytest.fixture
def machine(root, tmp_path):
    with DebianMachine(root, tmp_path) as started:
        yield started


@pytest.fixture
def installed(machine, debian_package):
    machine.install(debian_package)
    return machine


@pytest.fixture(scope="session")
def certificates(tmp_path_factory):
    return CertificateFactory(tmp_path_factory.mktemp("certificates"))


@pytest.fixture
def service(certificates):
    account = Account("alice", "key-of-alice", "session-of-alice")
    with LogService(certificates.server, accounts=[account]) as running:
        yield running


def add_closed_libraries(machine):
    for name in LIBRARIES:
        shutil.copy2(NATIVE_BUILD / name, machine.path(f"{PROGRAM_FOLDER}/{name}"))


def add_log(machine, log_dir, tmp_path):
    """Adds a waiting file of an account, and the account's credentials."""
    for name in ("Upload/alice", "Archive/alice", "LogWork/alice", "UploadResult"):
        machine.path(f"{log_dir}/{name}").mkdir(parents=True)
    machine.path(f"{log_dir}/Upload/alice/a.log").write_text("something happened\r\n", "ascii")
    # The file is not root's: the service must be able to move other users' files.
    os.chown(machine.path(f"{log_dir}/Upload/alice/a.log"), 4711, 4711)
    os.chown(machine.path(f"{log_dir}/Upload/alice"), 4711, 4711)
    os.chmod(machine.path(f"{log_dir}/Upload/alice"), 0o700)
    (tmp_path / "seal").mkdir()
    shutil.copy2(NATIVE_BUILD / "keyward-seal", tmp_path / "seal")
    subprocess.run(
        [tmp_path / "seal/keyward-seal", "--raw", machine.path(f"{log_dir}/LogWork/alice/UserData.dat")],
        input=json.dumps({"apikey": "key-of-alice", "idp_session": "session-of-alice"}).encode(), check=True,
    )
    shutil.copy2(tmp_path / "seal/Corvid.key", machine.path(f"{PROGRAM_FOLDER}/Corvid.key"))


def switch_log_on(machine):
    machine.do("install", "-D", "-m", "644", "/usr/share/doc/kydloguploader/examples/on.reg",
               "/etc/keyward/registry.reg")


def set_up(machine, tenant, log_dir):
    machine.path(SETTINGS).write_text(f"TENANT={tenant}\nLOG_DIR={log_dir}\n", "utf-8")


def test_nothing_starts_before_it_is_enabled(installed):
    states = {name: installed.unit(name) for name in (SERVICE, TIMER)}
    assert {name: state["LoadState"] for name, state in states.items()} == {SERVICE: "loaded", TIMER: "loaded"}
    assert {name: state["ActiveState"] for name, state in states.items()} == {
        SERVICE: "inactive", TIMER: "inactive",
    }
    assert installed.run("systemctl", "is-enabled", TIMER).stdout == "disabled\n"


def test_one_command_enables_hourly_runs(installed):
    installed.path("/srv/kydlog").mkdir()
    set_up(installed, "tenant.example.com", "/srv/kydlog")
    installed.do("systemctl", "enable", "--now", TIMER)
    timer = installed.unit(TIMER)
    assert (timer["ActiveState"], timer["UnitFileState"], timer["Unit"]) == ("active", "enabled", SERVICE)
    assert "OnCalendar=*-*-* *:00:00" in timer["TimersCalendar"]


def test_run_of_the_service_uploads(installed, service, tmp_path):
    log_dir = "/srv/kyd log 'Größe' $HOME %n"
    add_closed_libraries(installed)
    add_log(installed, log_dir, tmp_path)
    switch_log_on(installed)
    set_up(installed, service.tenant, '"' + log_dir.replace("$", "\\$") + '"')
    installed.do("systemctl", "start", SERVICE)
    log = installed.path(LOG).read_text("utf-8-sig")
    assert [request.body for request in service.requests] == [b"something happened\r\n"], log
    assert installed.path(f"{log_dir}/Archive/alice/a.log").exists()
    assert not installed.path(f"{log_dir}/Upload/alice/a.log").exists()
    assert len(list(installed.path(f"{log_dir}/UploadResult").iterdir())) == 1
    assert f"LogDir [{log_dir}]" in log


def test_run_of_a_system_user_uploads(installed, service, tmp_path):
    """The steps in deploy/README.md."""
    add_closed_libraries(installed)
    add_log(installed, "/srv/kydlog", tmp_path)
    switch_log_on(installed)
    set_up(installed, service.tenant, "/srv/kydlog")
    examples = "/usr/share/doc/kydloguploader/examples"
    installed.do("install", "-D", "-m", "644", f"{examples}/kydloguploader.sysusers.conf",
                 "/etc/sysusers.d/kydloguploader.conf")
    installed.do("systemd-sysusers")
    installed.do("install", "-D", "-m", "644", f"{examples}/user.conf",
                 "/etc/systemd/system/kydloguploader.service.d/user.conf")
    installed.do("systemctl", "daemon-reload")
    installed.do("chown", "-R", "kydloguploader:", "/srv/kydlog", f"{PROGRAM_FOLDER}/Corvid.key")
    installed.do("install", "-d", "-o", "kydloguploader", "-m", "750", "/var/log/DebugSSO")

    # The command in docs/operator-guide.md.
    for as_user in ([], ["runuser", "-u", "kydloguploader", "--"]):
        assert installed.do(*as_user, "KydUploadStatus", "/srv/kydlog", "--check").startswith("OK: nothing found")

    installed.do("systemctl", "start", SERVICE)
    log = installed.path(LOG).read_text("utf-8-sig")
    assert [request.body for request in service.requests] == [b"something happened\r\n"], log
    archived = installed.path("/srv/kydlog/Archive/alice/a.log")
    owner = installed.do("id", "--user", "kydloguploader").strip()
    assert str(archived.stat().st_uid) == owner != "0"
    (result,) = installed.path("/srv/kydlog/UploadResult").iterdir()
    assert str(result.stat().st_uid) == owner
    assert "Success [200]" in log

    listed = installed.do("systemd-analyze", "security", "--no-pager", SERVICE)
    exposure = float(listed.rsplit("Overall exposure level", 1)[1].split(": ")[1].split(" ")[0])
    assert exposure * 10 <= HIGHEST_EXPOSURE["with a user"]


@pytest.mark.parametrize("settings, message", [
    ("", f"TENANT is not set in {SETTINGS}"),
    ("TENANT=tenant.example.com\n", f"LOG_DIR is not set in {SETTINGS}"),
    ("LOG_DIR=/srv\n", f"TENANT is not set in {SETTINGS}"),
    ("TENANT=https://tenant.example.com/\nLOG_DIR=/srv\n",
     f"TENANT in {SETTINGS} has to be a host name, optionally with a port: https://tenant.example.com/"),
    ("TENANT='a b; reboot'\nLOG_DIR=/srv\n",
     f"TENANT in {SETTINGS} has to be a host name, optionally with a port: a b; reboot"),
    ("TENANT=a\nLOG_DIR=srv\n", f"LOG_DIR in {SETTINGS} has to be an absolute path: srv"),
    ("TENANT=a\nLOG_DIR='/srv/no such'\n", f"LOG_DIR in {SETTINGS} is not a folder: /srv/no such"),
    ("TENANT=a\nLOG_DIR=/home\n",
     f"LOG_DIR in {SETTINGS} is read-only for the service (ProtectHome, ProtectSystem): /home"),
])
def test_wrong_settings_are_reported_in_the_journal(installed_once, settings, message):
    installed_once.path(SETTINGS).write_text(settings, "utf-8")
    installed_once.do("journalctl", "--rotate")
    installed_once.do("journalctl", "--vacuum-time=1s", f"--unit={SERVICE}")
    installed_once.do("systemctl", "reset-failed")  # avoids systemd's limit on starts
    assert installed_once.run("systemctl", "start", SERVICE).returncode != 0
    assert message in installed_once.journal(SERVICE).splitlines()
    state = installed_once.unit(SERVICE)
    assert (state["Result"], state["ActiveState"]) == ("exit-code", "failed")
    assert "status=78" in state["ExecStartPre"]
    assert "pid=0" in state["ExecStart"]  # never started


def test_unchanged_settings_are_reported_in_the_journal(installed_once, debian_files):
    shutil.copyfile(debian_files / SETTINGS.lstrip("/"), installed_once.path(SETTINGS))
    installed_once.do("systemctl", "reset-failed")
    assert installed_once.run("systemctl", "start", SERVICE).returncode != 0
    assert f"TENANT is not set in {SETTINGS}" in installed_once.journal(SERVICE)


def test_missing_library_is_reported_in_the_journal(installed_once):
    set_up(installed_once, "tenant.example.com", "/srv")
    installed_once.do("systemctl", "reset-failed")
    assert installed_once.run("systemctl", "start", SERVICE).returncode != 0
    # The command in docs/operator-guide.md.
    assert SERVICE in installed_once.do("systemctl", "--failed")
    assert "libpelham.so: cannot open shared object file" in installed_once.do("journalctl", "-u", "kydloguploader")
    assert installed_once.unit(SERVICE)["ExecMainStatus"] == "127"


@pytest.fixture(scope="module")
def installed_once(root, debian_package, tmp_path_factory):
    """For tests that change only the settings."""
    with DebianMachine(root, tmp_path_factory.mktemp("machine")) as started:
        started.install(debian_package)
        yield started


def test_units_are_valid_and_hardened(installed_once):
    assert installed_once.do("systemd-analyze", "verify", "--man=no", SERVICE, TIMER) == ""
    installed_once.do("systemd-analyze", "security", "--no-pager",
                      f"--threshold={HIGHEST_EXPOSURE[SERVICE]}", SERVICE)


def test_purge_leaves_nothing_of_its_own(machine, debian_package):
    before = machine.files()
    machine.install(debian_package)
    machine.path("/srv/kydlog").mkdir()
    set_up(machine, "tenant.example.com", "/srv/kydlog")
    machine.do("systemctl", "enable", "--now", TIMER)
    machine.do("dpkg", "-r", "kydloguploader")
    assert machine.files() - before == {
        SETTINGS.lstrip("/"), f"etc/systemd/system/timers.target.wants/{TIMER}",
    }
    assert machine.unit(TIMER)["ActiveState"] == "inactive"
    machine.do("dpkg", "-P", "kydloguploader")
    assert machine.files() == before
    assert not machine.path(PROGRAM_FOLDER).exists()


def test_purge_leaves_libraries_logs_and_settings(installed, tmp_path):
    before = installed.files()
    add_closed_libraries(installed)
    add_log(installed, "/srv/kydlog", tmp_path)
    switch_log_on(installed)
    set_up(installed, "localhost:1", "/srv/kydlog")
    installed.do("systemctl", "start", SERVICE)
    kept = installed.files() - before
    assert {name.rsplit("/", 1)[1] for name in kept} == {
        *LIBRARIES, "Corvid.key", "a.log", "UserData.dat", "registry.reg", "KydLogUploader.log",
    }
    installed.do("dpkg", "--purge", "kydloguploader")
    assert {name for name in installed.files() if "kyd" in name.lower() or name in kept} == kept


def repacked(package, folder, version, change):
    """Repacks the package with another version, after `change` has modified its files."""
    tool("dpkg-deb", "--raw-extract", package, folder)
    control = folder / "DEBIAN/control"
    text = control.read_text("utf-8")
    current = next(line for line in text.splitlines() if line.startswith("Version: "))
    control.write_text(text.replace(current, f"Version: {version}"), "utf-8")
    change(folder)
    made = folder.with_suffix(".deb")
    tool("dpkg-deb", "--root-owner-group", "--build", folder, made)
    return made


def without_units(folder):
    """The earlier package, whose units were examples for the administrator to copy and edit."""
    for name in ("postinst", "postrm", "prerm", "conffiles", "md5sums"):
        (folder / "DEBIAN" / name).unlink()
    examples = folder / "usr/share/doc/kydloguploader/examples"
    for path in (folder / UNITS).iterdir():
        path.rename(examples / path.name)
    shutil.rmtree((folder / UNITS).parent)
    shutil.rmtree(folder / "etc")
    (folder / "usr/lib/kydloguploader/check-settings").unlink()


OWN_UNIT = """[Service]
Type=oneshot
Environment=TENANT=localhost:1
Environment=LOG_DIR=/srv/kydlog
ExecStart=/usr/sbin/KydLogUploader ${TENANT} ${LOG_DIR}
"""


def test_upgrade_keeps_units_that_were_copied(machine, debian_package, tmp_path):
    older = repacked(debian_package, tmp_path / "older", "0.9-1", without_units)
    machine.install(older)
    add_closed_libraries(machine)
    add_log(machine, "/srv/kydlog", tmp_path)
    machine.path(f"/etc/systemd/system/{SERVICE}").write_text(OWN_UNIT, "ascii")
    machine.do("cp", f"/usr/share/doc/kydloguploader/examples/{TIMER}", "/etc/systemd/system")
    machine.do("systemctl", "daemon-reload")
    machine.do("systemctl", "enable", "--now", TIMER)

    machine.install(debian_package)
    assert machine.unit(TIMER)["ActiveState"] == "active"
    assert machine.unit(SERVICE)["FragmentPath"] == f"/etc/systemd/system/{SERVICE}"
    switch_log_on(machine)
    machine.do("systemctl", "start", SERVICE)
    assert "Tenant [localhost:1]" in machine.path(LOG).read_text("utf-8-sig")
    assert all(machine.path(f"{PROGRAM_FOLDER}/{name}").exists() for name in LIBRARIES)


def test_update_keeps_settings_and_timer_and_does_not_interrupt_a_run(installed, debian_package, tmp_path):
    def running_for_long(folder):
        check = folder / "usr/lib/kydloguploader/check-settings"
        check.write_text("#!/bin/sh\nexec sleep 300\n", "ascii")
        # A text for administrators that a later version may have changed.
        with (folder / "etc/default/kydloguploader").open("a", encoding="ascii") as settings:
            settings.write("# more\n")

    installed.path("/srv/kydlog").mkdir()
    set_up(installed, "tenant.example.com", "/srv/kydlog")
    installed.do("systemctl", "enable", "--now", TIMER)
    newer = repacked(debian_package, tmp_path / "newer", "9.0-1", running_for_long)
    installed.install(newer)
    assert "TENANT=tenant.example.com" in installed.path(SETTINGS).read_text("utf-8")
    assert installed.unit(TIMER)["ActiveState"] == "active"

    installed.do("systemctl", "start", "--no-block", SERVICE)
    state = installed.unit(SERVICE)
    assert state["ActiveState"] == "activating"
    installed.install(repacked(debian_package, tmp_path / "newest", "9.1-1", running_for_long))
    later = installed.unit(SERVICE)
    assert (later["ActiveState"], later["ControlPID"]) == ("activating", state["ControlPID"])
    installed.do("dpkg", "--remove", "kydloguploader")
    assert installed.unit(SERVICE)["ActiveState"] in ("inactive", "failed")
