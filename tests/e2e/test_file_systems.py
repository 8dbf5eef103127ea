"""The program on kernel and FUSE file systems, each mounted for one test only.

They are mounted in a separate mount namespace that ends with its only process, so that no mount remains.
Program and test access it through /proc/<process>/root.
"""

import contextlib
import os
import shutil
import subprocess
from pathlib import Path

import pytest

from service.log_service import Answer

from . import messages as say
from .harness import Machine, expect_messages
from .lines import serve

# The command that mounts each at $1, with $2 as a scratch folder on the ordinary disk.
_IMAGE = "truncate -s 320M $2/image &&"
MOUNTS = {
    "tmpfs": "mount -t tmpfs none $1",
    "ramfs": "mount -t ramfs none $1",
    "overlay": "mount -t tmpfs none $2 && mkdir $2/lower $2/upper $2/work &&"
    " mount -t overlay -o lowerdir=$2/lower,upperdir=$2/upper,workdir=$2/work none $1",
    "ext2": f"{_IMAGE} mkfs.ext2 -q $2/image && mount -o loop $2/image $1",
    "ext4": f"{_IMAGE} mkfs.ext4 -q $2/image && mount -o loop $2/image $1",
    "xfs": f"{_IMAGE} mkfs.xfs -q $2/image && mount -o loop $2/image $1",
    "btrfs": f"{_IMAGE} mkfs.btrfs -q $2/image && mount -o loop $2/image $1",
    "vfat": f"{_IMAGE} mkfs.vfat $2/image && mount -t vfat -o loop $2/image $1",
    "exfat": f"{_IMAGE} mkfs.exfat $2/image && mount -t exfat -o loop $2/image $1",
    "FUSE: bindfs": "bindfs $2 $1",
    "FUSE: overlay": "mkdir $2/lower $2/upper $2/work &&"
    " fuse-overlayfs -o lowerdir=$2/lower,upperdir=$2/upper,workdir=$2/work $1",
    "FUSE: fat": f"{_IMAGE} mkfs.vfat $2/image && fusefat -o rw+ $2/image $1",
    "FUSE: exfat": f"{_IMAGE} mkfs.exfat $2/image && losetup -f --show $2/image >$2/device &&"
    " mount.exfat-fuse $(cat $2/device) $1 && losetup -d $(cat $2/device)",
    "FUSE: ntfs": f"{_IMAGE} mkfs.ntfs -q -Q -F $2/image && ntfs-3g $2/image $1",
}
_TOOLS = ("mkfs.ext2", "mkfs.ext4", "mkfs.xfs", "mkfs.btrfs", "mkfs.vfat", "mkfs.exfat", "mkfs.ntfs",
          "bindfs", "fuse-overlayfs", "fusefat", "mount.exfat-fuse", "ntfs-3g")  # fmt: skip
SECONDS_TO_MOUNT = 60


@contextlib.contextmanager
def mounted(how, folder):
    """Yields the root of a new file system; `how` is one of MOUNTS or a similar command."""
    for tool in _TOOLS:
        if f"{tool} " in how and shutil.which(tool) is None:
            pytest.skip(f"{tool} is not installed")
    point, scratch = folder / "mounted", folder / "scratch"
    point.mkdir()
    scratch.mkdir()
    log = folder / "mounting"
    # Ends when its input is closed, so also if the session is killed.
    script = f"if {{ {how}; }} >&2; then echo mounted; cat >&2; umount -l $1; fi"
    with log.open("wb") as errors:
        holder = subprocess.Popen(
            ["unshare", "--mount", "--propagation=private", "sh", "-c", script, "sh", point, scratch],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=errors,
        )
    try:
        if holder.stdout.readline() != b"mounted\n":
            holder.wait(SECONDS_TO_MOUNT)
            why = " ".join(log.read_text("utf-8", "replace").split("\n")[-3:]).strip()
            pytest.skip(f"cannot be mounted here: {why}")
        yield Path(f"/proc/{holder.pid}/root", point.relative_to("/"))
    finally:
        holder.stdin.close()
        holder.wait(SECONDS_TO_MOUNT)
        holder.stdout.close()


# The folders on the tested file system; all others are on the ordinary disk.
ARRANGEMENTS = (("Upload", "Archive", "LogWork"), ("Archive",), ("Upload", "UploadResult"))


@pytest.mark.parametrize("name", MOUNTS)
def test_file_system(platform, certificates, tmp_path, name):
    if platform.name == "windows":
        pytest.skip("this would test Wine")
    with mounted(MOUNTS[name], tmp_path) as root:
        for parts in ARRANGEMENTS:
            print(parts)  # identifies the arrangement that failed
            if name == "FUSE: fat" and "UploadResult" in parts:
                continue  # fusefat cannot append to a file.
            machine = Machine(platform, tmp_path / "-".join(parts))
            with serve(machine, certificates.server) as service:
                lay_out(machine, root, parts)
                service.accounts = machine.accounts.values()
                judge_run(machine, service)
                judge_forced_run(machine)
            machine.expect_no_secret()


def lay_out(machine, root, parts):
    machine.switch_log_on()
    for part in parts:
        elsewhere = root / machine.folder.name / part
        elsewhere.mkdir(parents=True)
        machine.log_dir.joinpath(part).rmdir()
        machine.log_dir.joinpath(part).symlink_to(elsewhere)
    for account in ("alice", "bob"):
        machine.account(account)
    machine.log("alice", "empty.log", b"")
    machine.log("alice", "large.log", os.urandom(700_000))
    machine.logs("alice", "short.log", "taken.log")
    machine.log("bob", "refused.log")
    machine.archived("alice", "taken.log")


def judge_run(machine, service):
    service.decide = lambda request: Answer(401) if request.account == "bob" else None
    expected = say.started(machine)
    for account in machine.account_order():
        expected += say.account_in(account)
        for name in machine.search_order(account):
            if account == "bob":
                expected += say.refused(machine, account, name, 401, "")
            else:
                taken = 183 if name == "taken.log" else None
                expected += say.accepted(machine, account, name, move_error=taken)
        expected += say.account_out(account)
    expected += say.summary(accounts=2, send=2, ok=4, error=1)
    machine.run()
    expect_messages(machine.messages(), expected)
    assert sorted(one.body for one in service.requests) == sorted(
        machine.content(*file) for file in machine.made()
    )
    assert not machine.credential("bob").exists()
    assert files_below(machine.upload()) == {"alice/taken.log", "bob/refused.log"}
    assert files_below(machine.archive()) == {
        f"alice/{name}.log" for name in ("empty", "large", "short", "taken")
    }
    assert machine.archive("alice", "taken.log").read_bytes() == b"sent before\n"


def judge_forced_run(machine):
    """Refused files, and files that the archive already has, are archived under another name."""
    before = machine.result_file()
    machine.run_forced()
    assert machine.result_file().startswith(before)
    assert len(machine.result_file()) > len(before)
    assert not files_below(machine.upload())
    assert files_below(machine.archive()) == {
        *(f"alice/{name}.log" for name in ("empty", "large", "short", "taken")),
        "alice/taken.log.bak",
        "bob/refused.log.bak",
    }


def files_below(folder):
    return {f"{path.parent.name}/{path.name}" for path in folder.glob("*/*")}
