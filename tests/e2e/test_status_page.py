"""The HTML page of KydUploadStatus: its content, and that it is self-contained."""

import base64
import hashlib
import re
import xml.etree.ElementTree

import pytest

from .browser import AXE, browsing
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


def test_page_shows_the_same(machine):
    account = "carol & dave" if machine.platform.name == "windows" else "<b>&\"'\x01;"
    shown = account.replace("\x01", "\ufffd")
    machine.account(account)
    machine.log(account, "a.log", b"x" * 2048)
    make_older(machine, account, "a.log", 30 * HOUR)
    write_result(machine, day_before(1), result(day_before(1), 5, 3, [(account, 3)]))
    finished, path = page_of(machine, "--max-age", "20")
    assert finished.code == WARNING
    # The page is well-formed: external text is not parsed as markup.
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
        assert element.tag.split("}")[-1] not in {"link", "img", "iframe", "object", "form"}
        assert not {"src", "href", "onclick", "onload", "style"} & set(element.attrib)
    (policy,) = page.iterfind(".//meta[@http-equiv='Content-Security-Policy']")
    # The policy allows this script and no other.
    (script,) = page.iter("script")
    digest = base64.b64encode(hashlib.sha256(script.text.encode("utf-8")).digest()).decode("ascii")
    assert policy.get("content") == (
        f"default-src 'none'; style-src 'unsafe-inline'; script-src 'sha256-{digest}'; "
        "base-uri 'none'; form-action 'none'"
    )
    # An HTML parser and an XML parser must read the same script.
    assert not {"<", "&"} & set(script.text)
    for way_out in ("http", "fetch", "innerHTML", "eval", "import"):
        assert way_out not in script.text
    style = page.find("head/style").text
    assert "url(" not in style and "@import" not in style
    assert "prefers-color-scheme: dark" in style


def test_tables_have_captions_and_header_scopes(machine):
    machine.account("alice")
    _, path = page_of(machine)
    page = xml.etree.ElementTree.fromstring(path.read_text("utf-8"))
    for table in page.iter("table"):
        assert texts_of(table.find("caption"))
        assert all(cell.get("scope") == "col" for cell in table.find("thead/tr"))
        assert all(row[0].get("scope") == "row" for row in table.find("tbody"))
    # The controls are useless without the script, so they start hidden.
    assert page.find(".//div[@role='search']").get("hidden") is not None


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
    assert "files wait" in finished.output  # the report is still printed


def test_page_does_not_take_the_place_of_a_folder(machine):
    path = machine.folder / "page.html"
    path.mkdir()
    finished = status(machine, "--html", machine.platform.native_path(path))
    assert finished.code == UNKNOWN and finished.errors.startswith("KydUploadStatus: cannot write ")
    assert path.is_dir()
    assert not drafts_of(path)


# In a browser.


@pytest.fixture(scope="module")
def browser(tmp_path_factory):
    with browsing(tmp_path_factory.mktemp("chromium")) as started:
        yield started


HOSTILE = """'"><img src=x onerror=alert(1)>"""


def page_of_five(machine):
    """Creates a page with five accounts that differ in every column."""
    names = ["alice", "Bob", "account 10", "account 9"]
    names.append(HOSTILE if machine.platform.name == "linux" else "d & e")
    sizes = dict(zip(names, [5000, 300, 2_000_000, 0, 10]))
    for name, size in sizes.items():
        machine.account(name, seal=name != "Bob")
        if size:
            machine.log(name, "a.log", b"x" * size)
    make_older(machine, "alice", "a.log", 26 * HOUR)
    make_older(machine, "Bob", "a.log", 50 * SECONDS)
    make_older(machine, "account 10", "a.log", 3 * HOUR)
    write_result(machine, day_before(1), result(day_before(1), 5, 13, [("alice", 3), ("Bob", 10)]))
    return names[-1], page_of(machine)[1]


def shown_accounts(browser):
    return browser.run(
        "Array.from(document.querySelectorAll('#accounts-table tbody tr'))"
        ".filter(row => row.offsetParent).map(row => row.cells[0].firstChild.data)")


def sort_by(browser, title):
    browser.run(
        "Array.from(document.querySelectorAll('#accounts-table th button'))"
        f".find(one => one.textContent === '{title}').click()")
    return shown_accounts(browser)


def test_accounts_are_sorted_by_any_column(machine, browser):
    other, path = page_of_five(machine)
    browser.messages.clear()
    browser.open(path)
    assert sort_by(browser, "Size") == ["account 10", "alice", "Bob", other, "account 9"]
    assert sort_by(browser, "Size") == ["account 9", other, "Bob", "alice", "account 10"]
    assert sort_by(browser, "Oldest")[:3] == ["alice", "account 10", "Bob"]
    assert sort_by(browser, "Failed")[:2] == ["Bob", "alice"]
    assert sort_by(browser, "Credentials")[0] == "Bob"
    by_name = sort_by(browser, "Account")
    assert [name for name in by_name if name != other] == ["account 9", "account 10", "alice", "Bob"]
    assert sort_by(browser, "Account") == by_name[::-1]
    assert browser.run(
        "Array.from(document.querySelectorAll('th[aria-sort]'))"
        ".map(one => one.textContent + ' ' + one.getAttribute('aria-sort'))") == ["Account descending"]
    # Nothing violated the policy, and no name was run as a script.
    assert not browser.messages
    assert browser.run("document.images.length") == 0


def filter_by(browser, name, show=""):
    browser.run(f"""(() => {{
        const [name, show] = document.querySelectorAll("#accounts-controls input, #accounts-controls select");
        name.value = {name!r};
        name.dispatchEvent(new Event("input"));
        show.value = {show!r};
        show.dispatchEvent(new Event("change"));
    }})()""")
    count = browser.run("document.querySelector('[role=status]').textContent")
    shown = shown_accounts(browser)
    assert count == f"{len(shown)} of 5 accounts"
    return set(shown)


def test_accounts_are_filtered(machine, browser):
    other, path = page_of_five(machine)
    browser.open(path)
    assert filter_by(browser, "ACCOUNT ") == {"account 9", "account 10"}
    assert filter_by(browser, "", "failed") == {"alice", "Bob"}
    assert filter_by(browser, "", "credentials") == {"Bob"}
    assert filter_by(browser, "", "waiting") == {"alice", "Bob", "account 10", other}
    assert filter_by(browser, "account", "waiting") == {"account 10"}
    assert filter_by(browser, "", "not-sent") == set()
    assert len(filter_by(browser, "")) == 5


def test_page_can_be_used_with_the_keyboard_alone(machine, browser):
    _, path = page_of_five(machine)
    browser.open(path)
    seen = []
    for _ in range(20):
        browser.press("Tab")
        seen.append(browser.run(
            "document.activeElement.tagName + ' ' + document.activeElement.textContent.slice(0, 7)"))
        if seen[-1].startswith("INPUT"):
            for key in "bob":
                browser.press(key)
            assert shown_accounts(browser) == ["Bob"]
            browser.run("document.activeElement.value = ''; "
                        "document.activeElement.dispatchEvent(new Event('input'))")
        if seen[-1] == "BUTTON Waiting":
            browser.press("Enter")
            assert browser.run("document.activeElement.parentElement.getAttribute('aria-sort')") == "descending"
            browser.press(" ")
            assert browser.run("document.activeElement.parentElement.getAttribute('aria-sort')") == "ascending"
            assert shown_accounts(browser)[0] == "account 9"
            break
    else:
        raise AssertionError(seen)
    # The focus is visible.
    assert browser.run("getComputedStyle(document.activeElement).outlineStyle") == "solid"


def test_page_is_complete_without_its_script(machine, browser):
    other, path = page_of_five(machine)
    browser.open(path, script=False)
    assert set(shown_accounts(browser)) == {"alice", "Bob", "account 10", "account 9", other}
    assert browser.run("document.querySelectorAll('button').length") == 0
    assert browser.run("document.querySelector('#accounts-controls').offsetParent === null") is True


def contrast(browser, text, colour, ground):
    """The contrast ratio of the Web Content Accessibility Guidelines 2."""
    def luminance(selector, name):
        value = browser.run(f"getComputedStyle(document.querySelector('{selector}')).{name}")
        parts = [int(part) / 255 for part in re.findall(r"\d+", value)[:3]]
        linear = [part / 12.92 if part <= 0.04045 else ((part + 0.055) / 1.055) ** 2.4 for part in parts]
        return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]

    dark, light = sorted([luminance(text, colour), luminance(ground, "backgroundColor")])
    return (light + 0.05) / (dark + 0.05)


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_page_is_accessible(machine, browser, scheme):
    if not AXE.exists():
        pytest.skip("axe-core is not installed: ./dev setup --browser")
    _, path = page_of_five(machine)
    # axe-core is a script itself, so remove the page's script instead of disabling scripts.
    bare = path.with_name("bare.html")
    bare.write_text(re.sub("<script>.*</script>", "", path.read_text("utf-8"), flags=re.DOTALL), "utf-8")
    for page, width in ((path, 1100), (bare, 1100), (path, 400)):
        browser.open(page, scheme=scheme, width=width)
        assert browser.run("getComputedStyle(document.body).backgroundColor") == {
            "light": "rgb(246, 247, 249)", "dark": "rgb(15, 19, 25)"}[scheme]
        if page == path:
            sort_by(browser, "Waiting")
        broken, unjudged = browser.broken_rules()
        assert not broken
        # axe-core cannot determine the background of SVG text and, on the narrow screen, of cells scrolled
        # out of view; it has checked the latter on the wide screen.
        assert {rule for rule, _ in unjudged} <= {"color-contrast"}
        assert width == 400 or all(html.startswith("<text ") for _, html in unjudged)
        assert contrast(browser, "svg text", "fill", "section") > 4.5
