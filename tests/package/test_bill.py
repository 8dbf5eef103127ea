"""Bills of materials: the members that CycloneDX 1.5 requires, and their values."""

import json
import re
import uuid

import pytest

from .conftest import BOOST, GCC, ROOT, SSL, debian_version, tool

PRODUCTS = {
    "KydLogUploader-{version}-windows-x64-mingw": {
        "cpprest", "g++-mingw-w64-x86-64-posix", "gcc-mingw-w64-x86-64-posix", BOOST,
        "libcli11-dev", "libfmt-dev", "mingw-w64-common", "mingw-w64-x86-64-dev",
        "rapidjson-dev",
    },
    "KydLogUploader-{version}-companion-development-windows-x64-mingw": {
        "g++-mingw-w64-x86-64-posix", "gcc-mingw-w64-x86-64-posix", "libcli11-dev", "libutfcpp-dev",
        "mingw-w64-common", "mingw-w64-x86-64-dev", "rapidjson-dev",
    },
    "kydloguploader_{debian_version}_amd64": {
        "cpprest", BOOST, "libc6", "libc6-dev", "libcli11-dev", "libfmt-dev",
        f"libgcc-{GCC}-dev", "libgcc-s1", "libssl-dev", SSL, f"libstdc++-{GCC}-dev", "libstdc++6",
        "libutfcpp-dev", "rapidjson-dev",
    },
}
# The SPDX ids that occur here.
LICENCES = {
    "Apache-2.0", "BSD-3-Clause", "BSL-1.0", "GCC-exception-3.1", "GPL-3.0-or-later",
    "LGPL-2.1-or-later", "MIT", "ZPL-2.1",
}


@pytest.fixture(params=PRODUCTS)
def bill(request, dist, version):
    product = request.param.format(version=version, debian_version=debian_version(version))
    content = json.loads((dist / f"{product}.cdx.json").read_text("utf-8"))
    return product, content, PRODUCTS[request.param]


def test_bill_identifies_itself(bill, version):
    product, content, _ = bill
    assert (content["bomFormat"], content["specVersion"], content["version"]) == ("CycloneDX", "1.5", 1)
    assert content["serialNumber"] == uuid.UUID(content["serialNumber"].removeprefix("urn:uuid:")).urn
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", content["metadata"]["timestamp"])
    component = content["metadata"]["component"]
    assert (component["type"], component["name"], component["version"]) == ("application", product, version)


def test_bill_names_everything_that_is_linked_in(bill):
    _, content, expected = bill
    names = [component["name"] for component in content["components"]]
    assert names == sorted(expected)


def test_versions_are_those_of_the_packages(bill):
    _, content, _ = bill
    for component in content["components"]:
        assert component["type"] == "library"
        if component["name"] == "cpprest":
            continue
        installed = tool("dpkg-query", "-W", "-f", "${Version}\n", component["name"]).splitlines()[0]
        assert component["version"] == installed
        pattern = r"pkg:deb/debian/([\w.%-]+)@([\w.%~-]+)\?arch=(?:amd64|all)&distro=debian-\d+"
        name, purl_version = re.fullmatch(pattern, component["purl"]).groups()
        assert name.replace("%2B", "+") == component["name"]
        assert purl_version.replace("%2B", "+").replace("%3A", ":") == installed


def test_rest_library_is_named_with_its_patches(bill):
    _, content, expected = bill
    found = [component for component in content["components"] if component["name"] == "cpprest"]
    assert len(found) == ("cpprest" in expected)
    for component in found:
        # Debian 12 has the older one, Debian 13 the newer.
        assert component["version"] in ("2.10.18", "2.10.19")
        assert component["purl"] == f"pkg:deb/debian/cpprest@{component['version']}?arch=source"
        patches = {patch["diff"]["url"] for patch in component["pedigree"]["patches"]}
        assert patches == set(tool("git", "ls-files", "cmake/cpprestsdk/*.patch", cwd=ROOT).split())


def test_licences_are_spdx_ids(bill):
    _, content, _ = bill
    for component in [content["metadata"]["component"], *content["components"]]:
        (entry,) = component["licenses"]
        text = entry["expression"] if "expression" in entry else entry["license"]["id"]
        assert set(re.split(r" (?:AND|OR|WITH) ", text)) <= LICENCES
        # The format requires an id where an expression is not needed.
        assert ("expression" in entry) == (" " in text)


def test_references_are_unique_and_resolve(bill):
    _, content, _ = bill
    components = [content["metadata"]["component"], *content["components"]]
    references = [component["bom-ref"] for component in components]
    assert len(set(references)) == len(references)
    assert [entry["ref"] for entry in content["dependencies"]] == references
    assert content["dependencies"][0]["dependsOn"] == references[1:]


def test_shared_libraries_are_those_that_the_package_depends_on(dist, version, debian_package):
    content = json.loads((dist / f"kydloguploader_{debian_version(version)}_amd64.cdx.json").read_text("utf-8"))
    shared = {
        component["name"] for component in content["components"]
        if {"name": "kydloguploader:linkage", "value": "dynamic"} in component["properties"]
    }
    depends = tool("dpkg-deb", "--field", debian_package, "Depends")
    assert shared == set(re.findall(r"([\w.+-]+) \(", depends))
