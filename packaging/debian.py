"""The Debian package of the native programs, built with debhelper."""

from __future__ import annotations

import os
import platform
import shutil
from email.utils import formatdate
from pathlib import Path

import linked
import project
from project import ROOT, WORK

BUILD = ROOT / "build/release-linux"
PACKAGE = "kydloguploader"
# Dependencies differ between releases, and a newer release's package must have a higher version.
VERSION = f"{project.version()}-1+deb{platform.freedesktop_os_release()['VERSION_ID']}"
MAINTAINER = f"{project.PUBLISHER} <kydloguploader@example.invalid>"
PROGRAMS = ("KydLogUploader", "KydUploadStatus")


def _changelog(time: int) -> str:
    return (
        f"{PACKAGE} ({VERSION}) stable; urgency=medium\n\n"
        f"  * Release {project.version()}.\n\n"
        f" -- {MAINTAINER}  {formatdate(time)}\n"
    )


def build(dist: Path, time: int) -> dict[str, list[linked.Component]]:
    """Creates the package and its debug symbols; returns the components in each package by name."""
    folder = project.fresh(WORK / "debian-package")
    source = folder / PACKAGE
    shutil.copytree(ROOT / "packaging/debian", source / "debian")
    control = source / "debian/control"
    control.write_text(control.read_text("utf-8").replace("@MAINTAINER@", MAINTAINER), "utf-8")
    (source / "debian/changelog").write_text(_changelog(time), "utf-8")
    (source / "debian/rules").chmod(0o755)
    for name in PROGRAMS:
        project.copy(BUILD / "bin" / name, source / "bin" / name)
        (source / "bin" / name).chmod(0o755)
    # Needed to compute the dependencies; not packaged.
    project.copy(BUILD / "bin/libpelham.so", source / "closed/libpelham.so")
    for document in project.documents():
        project.copy(ROOT / document, source / "texts" / document)
    components = linked.components(BUILD, PROGRAMS)
    inside = [component for component in components if component.linkage == "static"]
    linked.write_licences(inside, source / "texts/licenses")
    for part in ("linux/system-user", "diagnostic-log", "monitoring"):
        for file in project.files_below(ROOT / "deploy" / part):
            project.copy(ROOT / "deploy" / part / file, source / "examples" / file)
    for kind in ("service", "timer", "default"):
        project.copy(ROOT / f"deploy/linux/{PACKAGE}.{kind}", source / f"debian/{PACKAGE}.{kind}")
    project.copy(ROOT / "deploy/linux/check-settings", source / "bin/check-settings")
    (source / "bin/check-settings").chmod(0o755)
    shutil.copytree(ROOT / "packaging/man", source / "man")

    project.settle(source, time)
    project.run(
        "dpkg-buildpackage", "--build=binary", "--unsigned-changes", "--unsigned-buildinfo",
        "--no-check-builddeps", cwd=source,
        # The caller's environment must not affect the packages.
        DEB_BUILD_OPTIONS="nocheck", SOURCE_DATE_EPOCH=str(time),
    )
    for path in sorted(folder.glob("*.deb")):
        shutil.copyfile(path, dist / path.name)
    product = f"{PACKAGE}_{VERSION}_amd64"
    if not (dist / f"{product}.deb").exists():
        raise project.Failure(f"dpkg-buildpackage did not create {product}.deb: {os.listdir(folder)}")
    return {product: components}
