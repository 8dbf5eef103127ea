"""The page of KydUploadStatus: what it tells, and that it is all in one file."""

import shutil
import struct
import subprocess
import xml.etree.ElementTree
import zlib

import pytest

from .status_tool import (
    HOUR,
    SECONDS,
    UNKNOWN,
    WARNING,
    day_before,
    make_older,
    result,
    status,
    write_result,
)


def drafts_of(path):
    return list(path.parent.glob(f"{path.name}.*"))


def page_of(machine, *arguments):
    path = machine.folder / "p\u00e4ge.html"
    finished = status(machine, "--html", machine.platform.native_path(path), *arguments)
    assert not drafts_of(path)
    return finished, path


def texts_of(element):
    return " ".join("".join(element.itertext()).split())


def test_page_tells_the_same(machine):
    account = "carol & dave" if machine.platform.name == "windows" else "<b>&\"'\x01;"
    shown = account.replace("\x01", "\ufffd")
    machine.account(account)
    machine.log(account, "a.log", b"x" * 2048)
    make_older(machine, account, "a.log", 30 * HOUR)
    write_result(machine, day_before(1), result(day_before(1), 5, 3, [(account, 3)]))
    finished, path = page_of(machine, "--max-age", "20")
    assert finished.code == WARNING
    # It is well-formed: nothing that comes from outside is markup.
    page = xml.etree.ElementTree.fromstring(path.read_text("utf-8"))
    assert page.get("lang") == "en"
    assert texts_of(page.find("head/title")) == "WARNING: log upload status"
    assert texts_of(page.find(".//span[@class='state warning']")) == "WARNING"
    accounts, days = page.iter("table")
    rows = [[texts_of(cell) for cell in row] for row in accounts.iter("tr")]
    assert rows[0] == ["Account", "Waiting", "Size", "Oldest", "Archived", "Not sent",
                       "Credentials", "Failed"]
    assert rows[1] == [shown, "1", "2.0 KiB", "1 d 6 h", "0", "0", "yes", "3"]
    rows = [[texts_of(cell) for cell in row] for row in days.iter("tr")]
    assert rows[2] == [f"{day_before(1):%Y-%m-%d}", "1", "3", "5", "3", "1"]
    assert len(rows) == 8
    svg = "{http://www.w3.org/2000/svg}"
    (chart,) = page.iter(f"{svg}svg")
    assert chart.get("role") == "img" and chart.get("aria-label")
    bars = [bar.get("class") for bar in chart.iter(f"{svg}rect") if bar.get("class")]
    assert bars == ["sent", "failed"]


def test_page_needs_nothing_but_itself(machine):
    _, path = page_of(machine)
    page = xml.etree.ElementTree.fromstring(path.read_text("utf-8"))
    for element in page.iter():
        assert element.tag.split("}")[-1] not in {"script", "link", "img", "iframe", "object"}
        assert not {"src", "href", "onclick", "onload", "style"} & set(element.attrib)
    (policy,) = page.iterfind(".//meta[@http-equiv='Content-Security-Policy']")
    assert policy.get("content").startswith("default-src 'none'")
    style = page.find("head/style").text
    assert "url(" not in style and "@import" not in style
    assert "prefers-color-scheme: dark" in style


def test_page_replaces_an_older_one_in_one_step(machine):
    _, path = page_of(machine)
    path.write_bytes(b"x" * 1_000_000)
    older = path.stat().st_ino
    page_of(machine)
    assert path.read_text("utf-8").endswith("</html>\n")
    assert path.stat().st_ino != older


def test_page_that_cannot_be_written(machine):
    path = machine.folder / "nowhere" / "page.html"
    finished = status(machine, "--html", machine.platform.native_path(path))
    assert finished.code == UNKNOWN
    assert finished.errors.startswith("KydUploadStatus: cannot write ")
    assert finished.errors.rstrip().endswith("(missing)")
    assert "files wait" in finished.output  # the report is there all the same


def test_page_does_not_take_the_place_of_a_folder(machine):
    path = machine.folder / "page.html"
    path.mkdir()
    finished = status(machine, "--html", machine.platform.native_path(path))
    assert finished.code == UNKNOWN and finished.errors.startswith("KydUploadStatus: cannot write ")
    assert path.is_dir()
    assert not drafts_of(path)


def first_pixel(path):
    """The colour in the upper left corner of a PNG picture (RFC 2083): no filter changes it."""
    content = path.read_bytes()
    assert content[:8] == b"\x89PNG\r\n\x1a\n"
    data, at = b"", 8
    while at < len(content):
        length, kind = struct.unpack_from(">I4s", content, at)
        if kind == b"IDAT":
            data += content[at + 8 : at + 8 + length]
        at += 12 + length
    return tuple(zlib.decompress(data)[1:4])


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_browser_shows_the_page_in_both_schemes(machine, scheme):
    browser = shutil.which("chromium")
    if browser is None:
        pytest.skip("no chromium is installed: ./dev setup --browser")
    machine.account("alice")
    machine.log("alice", "a.log")
    write_result(machine, day_before(1), result(day_before(1), 5, 3, [("alice", 3)]))
    _, path = page_of(machine)
    picture = machine.folder / "page.png"
    chosen = {"light": 1, "dark": 0}[scheme]
    subprocess.run(
        [
            browser, "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
            f"--user-data-dir={machine.folder / 'browser'}", "--window-size=1100,1500",
            f"--blink-settings=preferredColorScheme={chosen}", f"--screenshot={picture}",
            path.as_uri(),
        ],
        check=True, timeout=SECONDS, capture_output=True, stdin=subprocess.DEVNULL,
    )
    assert first_pixel(picture) == {"light": (0xF6, 0xF7, 0xF9), "dark": (0x0F, 0x13, 0x19)}[scheme]
