"""A parser for the parts of Markdown that the document tests need."""

import functools
import re
import subprocess
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]

_FENCE = re.compile(r"(?P<indent> {0,3})(?P<fence>```+|~~~+)\s*(?P<language>\S*)")
_HEADING = re.compile(r"#{1,6} +(?P<title>.*?)(?: +#+)?$")
_CODE_SPAN = re.compile(r"(?<!`)(`+)(?!`)(.+?)(?<!`)\1(?!`)")
_LINK = re.compile(r"!?\[(?P<text>[^\]\[]*)\]\((?P<target>[^()\s]+)(?:\s+\"[^\"]*\")?\)")
_DEFINITION = re.compile(r" {0,3}\[(?P<name>[^\]]+)\]:\s+(?P<target>\S+)")
_COLUMN = re.compile(r"(?<!\\)\|")
_LIST_ITEM = re.compile(r" *(?:[-*+]|\d+[.)]) ")


@dataclass
class Block:
    """A code block. An indented block has the language "indented"."""

    language: str
    line: int
    lines: list[str] = field(default_factory=list)


@dataclass
class Heading:
    level: int
    title: str
    anchor: str
    line: int


@dataclass
class Link:
    target: str
    line: int


def _anchor(title: str) -> str:
    """Returns the anchor that Markdown hosts generate for a heading."""
    text = _LINK.sub(lambda match: match["text"], title).lower()
    return re.sub(r"[^\w\- ]", "", text).replace(" ", "-")


class Document:
    def __init__(self, path: Path):
        self.path = path
        self.name = path.relative_to(ROOT).as_posix()
        self.lines = path.read_text("utf-8").splitlines()
        self.blocks: list[Block] = []
        self.headings: list[Heading] = []
        self.links: list[Link] = []
        self.prose: list[tuple[int, str]] = []  # (number, line) outside of code blocks
        self._take_apart()

    def _take_apart(self) -> None:
        fence, block, in_list, blank_before = None, None, False, True
        for number, line in enumerate(self.lines, 1):
            opened = _FENCE.match(line)
            if fence is not None:
                if opened and opened["fence"].startswith(fence) and not opened["language"]:
                    fence = None
                else:
                    block.lines.append(line)
                continue
            if opened:
                fence = opened["fence"]
                block = Block(opened["language"], number)
                self.blocks.append(block)
                continue
            if not line.strip():
                blank_before = True
                continue
            if line.startswith("    ") and not in_list and (blank_before or self._goes_on(number)):
                self._indented(number, line)
                continue
            if blank_before and not line.startswith(" "):
                in_list = False
            in_list = in_list or _LIST_ITEM.match(line) is not None
            blank_before = False
            self._prose(number, line)
        assert fence is None, f"{self.name}: a code block is not closed"

    def _goes_on(self, number: int) -> bool:
        """Whether the previous line belongs to an indented block."""
        last = self.blocks[-1] if self.blocks else None
        return bool(last and last.language == "indented"
                    and last.line + len(last.lines) == number)

    def _indented(self, number: int, line: str) -> None:
        if not self._goes_on(number):
            self.blocks.append(Block("indented", number))
        self.blocks[-1].lines.append(line[4:])

    def _prose(self, number: int, line: str) -> None:
        self.prose.append((number, line))
        heading = _HEADING.match(line)
        if heading:
            anchor = _anchor(heading["title"])
            same = sum(one.anchor == anchor or one.anchor.startswith(f"{anchor}-")
                       and one.anchor[len(anchor) + 1:].isdigit() for one in self.headings)
            self.headings.append(Heading(
                len(line) - len(line.lstrip("#")), heading["title"],
                f"{anchor}-{same}" if same else anchor, number))
        bare = _CODE_SPAN.sub("", line)
        self.links += [Link(match["target"], number) for match in _LINK.finditer(bare)]
        definition = _DEFINITION.match(bare)
        if definition:
            self.links.append(Link(definition["target"], number))

    @property
    def anchors(self) -> set[str]:
        return {heading.anchor for heading in self.headings}

    def code_spans(self) -> list[tuple[int, str]]:
        """Returns (line, text) of every inline code span."""
        return [(number, match[2].strip() if match[1] != "`" else match[2])
                for number, line in self.prose for match in _CODE_SPAN.finditer(line)]

    def first_paragraph(self) -> str:
        """Returns the text after the title, up to the first blank line."""
        below = [line for line in self.lines if not _HEADING.match(line)]
        text = "\n".join(below).strip()
        return " ".join(text.split("\n\n", 1)[0].split())

    def section(self, title: str) -> tuple[int, int]:
        """Returns the first and last line of a section, including its subsections."""
        (start,) = (one for one in self.headings if one.title == title)
        ends = [one.line - 1 for one in self.headings
                if one.line > start.line and one.level <= start.level]
        return start.line, min(ends, default=len(self.lines))

    def tables(self) -> list[tuple[int, list[list[str]]]]:
        """Returns (line, rows) of each table; the first row is the header, the second the delimiter."""
        found: list[tuple[int, list[list[str]]]] = []
        last = None
        for number, line in self.prose:
            if not line.startswith("|"):
                continue
            if last != number - 1:
                found.append((number, []))
            found[-1][1].append([cell.strip() for cell in _COLUMN.split(line.strip()[1:-1])])
            last = number
        return found

    def table_rows(self, section: str, first_header: str) -> list[list[str]]:
        """Returns the rows of all tables in a section whose first column has this header."""
        first, last = self.section(section)
        return [row for line, rows in self.tables() if first <= line <= last and rows[0][0] == first_header
                for row in rows[2:]]


@functools.cache
def tracked_files() -> frozenset[str]:
    """Returns all files of the tree, including new ones, except those that git ignores."""
    listed = subprocess.run(
        ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
        cwd=ROOT, stdout=subprocess.PIPE, check=True,
    )
    return frozenset(name for name in listed.stdout.decode("utf-8").split("\0")
                     if name and (ROOT / name).exists())


@functools.cache
def documents() -> dict[str, Document]:
    return {name: Document(ROOT / name) for name in sorted(tracked_files()) if name.endswith(".md")}
