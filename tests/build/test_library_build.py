"""cmake/cpprestsdk/build uses the source version of the machine's release, and no other."""

import re

import pytest

from .conftest import ROOT

SCRIPT = ROOT / "cmake/cpprestsdk/build"
# Like apt-get, for the second-to-last argument.
DOWNLOAD = '[ "{name}" = none ] || case " $* " in *" source "*) echo no archive >"{name}" ;; esac'
BUILDS = ("cmake", "ninja", "patch")


@pytest.fixture
def building(a_machine):
    """A machine that shows whether a build was started."""
    for name in BUILDS:
        a_machine.tool(name, f"touch {a_machine.tools}/build-started; exit 1")

    def run(tarball, platform="linux"):
        a_machine.tool("apt-get", DOWNLOAD.format(name=tarball))
        done = a_machine.run(SCRIPT, platform)
        assert (done.returncode, done.stdout) == (1, "")
        assert not (a_machine.tools / "build-started").exists()
        assert not list(a_machine.cache.glob("cpprestsdk/.work.*"))
        (line,) = done.stderr.splitlines()
        return line

    return run


@pytest.mark.parametrize("version", ["2.10.17", "2.10.20", "2.11.0"])
def test_version_that_is_not_supported_is_refused(building, version):
    assert re.fullmatch(
        rf"cpprestsdk: version {re.escape(version)} of this machine's release is not supported; "
        r"put cpprest_2\.10\.19\.orig\.tar\.gz or cpprest_2\.10\.18\.orig\.tar\.gz into \S+/cpprestsdk/source",
        building(f"cpprest_{version}.orig.tar.gz"),
    )


def test_mirror_without_the_source_is_reported(building):
    assert building("none").startswith("cpprestsdk: version unknown of this machine's release is not supported")


@pytest.mark.parametrize("version", ["2.10.18", "2.10.19"])
def test_archive_with_other_bytes_is_refused(building, version):
    name = f"cpprest_{version}.orig.tar.gz"
    assert building(name) == f"cpprestsdk: {name} is not the expected one"


def test_archive_with_other_bytes_in_the_cache_is_not_used(building, a_machine):
    source = a_machine.cache / "cpprestsdk/source"
    source.mkdir(parents=True)
    (source / "cpprest_2.10.18.orig.tar.gz").write_bytes(b"something else")
    assert "is not the expected one" in building("cpprest_2.10.19.orig.tar.gz")


def test_unknown_platform_is_refused(a_machine):
    done = a_machine.run(SCRIPT, "solaris")
    assert done.returncode == 1
    (line,) = done.stderr.splitlines()
    assert line.startswith("cpprestsdk: usage: build ")
