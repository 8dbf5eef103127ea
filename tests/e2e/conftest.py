"""Options and fixtures of the end-to-end tests."""

import os
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest

from service.certificates import CertificateFactory
from service.log_service import LogService

from .harness import Machine
from .outcome import Plan, load
from .platforms import PLATFORMS, ROOT
from .status_tool import MANY, SECONDS, Finished


def pytest_addoption(parser):
    parser.addoption(
        "--platform",
        choices=tuple(PLATFORMS),
        default=None,
        help="platform to test (default: all that have been built)",
    )
    parser.addoption(
        "--endurance",
        choices=("sample", "long"),
        default="sample",
        help="size of the tests that repeat runs many times",
    )
    parser.addoption("--linux-bin", type=Path, default=ROOT / "build/linux/bin")
    parser.addoption("--windows-bin", type=Path, default=ROOT / "build/windows/bin")
    parser.addoption("--windows-msvc-bin", type=Path, default=ROOT / "build/windows-msvc/bin")
    parser.addoption("--msvc-bin", type=Path, default=ROOT / "build/msvc/bin")


def _chosen(config):
    chosen = config.getoption("--platform")
    return tuple(PLATFORMS) if chosen is None else (chosen,)


def pytest_generate_tests(metafunc):
    if "platform" in metafunc.fixturenames:
        metafunc.parametrize("platform", _chosen(metafunc.config), indirect=True, scope="session")


def pytest_collection_modifyitems(config, items):
    # Tests that do not start the program do not depend on the platform: run them natively only.
    if config.getoption("--platform") not in (None, "linux"):
        elsewhere = [item for item in items if "platform" not in item.fixturenames]
        config.hook.pytest_deselected(items=elsewhere)
        items[:] = [item for item in items if item not in elsewhere]


@pytest.fixture(scope="session")
def certificates(tmp_path_factory):
    return CertificateFactory(tmp_path_factory.mktemp("certificates"))


@pytest.fixture(scope="session")
def platform(request, tmp_path_factory):
    config = request.config
    kind = PLATFORMS[request.param]
    bin_folder = config.getoption(f"--{request.param}-bin").resolve()
    native = bin_folder if kind.runs_here else config.getoption("--linux-bin").resolve()
    missing = kind.missing(bin_folder, native)
    if missing is not None:
        if config.getoption("--platform") is None:
            pytest.skip(f"no build for {request.param}: {missing} is missing")
        pytest.fail(f"no build for {request.param}: {missing} is missing", pytrace=False)
    folder = tmp_path_factory.mktemp(request.param)
    started = kind(folder, bin_folder, native)
    started.start()
    try:
        yield started
    finally:
        started.stop()


@pytest.fixture
def machine(platform, tmp_path):
    """A separate machine for each test; fails if the test leaves a secret on it."""
    made = Machine(platform, tmp_path)
    yield made
    made.expect_no_secret()


@pytest.fixture
def service(machine, certificates):
    """A service at the machine's tenant address that knows the machine's accounts."""
    with LogService(certificates.server) as running:
        # A live view, so that accounts created later in the test are known too.
        running.accounts = machine.accounts.values()
        machine.tenant = running.tenant
        yield running


@pytest.fixture
def plan(machine):
    """A machine with accounts and files, and the expected outcome of a run."""
    load(machine)
    return Plan(machine)


@pytest.fixture
def ordinary(machine):
    """Runs the status tool as an ordinary user who owns the tree and the programs."""
    if machine.platform.name == "windows":
        pytest.skip("Wine knows only the rights of the user who runs it")
    folder = Path(tempfile.mkdtemp())
    tree = folder / "logs"
    for path in ("Upload/alice", "Upload/bob", "Archive/alice", "Archive/bob", "LogWork/alice",
                 "UploadResult"):
        (tree / path).mkdir(parents=True)
    for path in ("run/lock", "var/log", "etc/keyward"):
        (folder / "sysroot" / path).mkdir(parents=True)
    shutil.copytree(machine.platform.program_folder, folder / "program")
    is_root = os.getuid() == 0
    subprocess.run(["chown", "-R", "nobody:nogroup", folder], check=is_root)
    switch = {"user": "nobody", "group": "nogroup", "extra_groups": []} if is_root else {}

    def run(*arguments):
        finished = subprocess.run(
            [folder / "program" / machine.platform.status_name, tree, *arguments], cwd="/",
            stdin=subprocess.DEVNULL, capture_output=True, timeout=SECONDS, check=False,
            env={**machine.environment, "KEYWARD_SYSROOT": str(folder / "sysroot")}, **switch,
        )
        errors = machine.platform.own_output(finished.stderr)
        return Finished(finished.returncode, finished.stdout, errors)

    def write(path, content=b""):
        """Creates a file in the folder, owned by that user."""
        (folder / path).write_bytes(content)
        if is_root:
            shutil.chown(folder / path, "nobody", "nogroup")
        return folder / path

    run.folder = folder
    run.tree = tree
    run.write = write
    try:
        yield run
    finally:
        for path in (folder, *folder.rglob("*")):
            if path.is_dir():
                path.chmod(0o755)
        shutil.rmtree(folder)


@pytest.fixture(scope="session")
def many_files(tmp_path_factory):
    """A log directory with many waiting files."""
    folder = tmp_path_factory.mktemp("many")
    account = folder / "Upload" / "alice"
    account.mkdir(parents=True)
    (folder / "Archive" / "alice").mkdir(parents=True)
    for number in range(MANY):
        path = account / f"{number}.log"
        descriptor = os.open(path, os.O_WRONLY | os.O_CREAT)
        os.ftruncate(descriptor, 4096)  # sparse: no disk block is allocated
        os.close(descriptor)
    yield folder
    shutil.rmtree(folder)
