"""Extracts the messages that the sources log."""

import re
from pathlib import Path

from .markdown import ROOT

# All folders of the program. `log_calls` notices a folder that logs but is missing here.
FOLDERS = ("credentials", "debuglog", "logtree", "platform", "run", "socket", "upload", "uploader")

_CALL = re.compile(r"\bWriteLog[AW]\s*\(")
_IDENTIFIER = re.compile(r"[A-Za-z_]\w*")
_LITERAL = re.compile(r'L?"((?:[^"\\]|\\.)*)"')


class CannotTell(Exception):
    """A call whose message cannot be extracted."""


def program_files() -> list[Path]:
    return sorted(path for folder in FOLDERS for path in (ROOT / folder).iterdir()
                  if path.suffix in (".cpp", ".h"))


def without_comments(text: str) -> str:
    """Replaces comments by spaces; all offsets remain valid."""
    pattern = re.compile(r'"(?:[^"\\\n]|\\.)*"|\'(?:[^\'\\\n]|\\.)*\'|//[^\n]*|/\*.*?\*/', re.DOTALL)
    return pattern.sub(
        lambda match: re.sub(r"[^\n]", " ", match[0]) if match[0].startswith("/") else match[0], text)


def literal(expression: str) -> str | None:
    """Returns the value of one or more adjacent string literals; None for any other expression."""
    pieces = [match[1] for match in _LITERAL.finditer(expression)]
    if not pieces or _LITERAL.sub("", expression).strip():
        return None
    return "".join(pieces).replace('\\"', '"').replace("\\\\", "\\")


def arguments_behind(text: str, start: int) -> list[str]:
    """Returns the arguments of the call whose opening parenthesis is just before `start`."""
    depth, arguments, begin, at = 0, [], start, start
    while at < len(text):
        quoted = re.compile(r'"(?:[^"\\\n]|\\.)*"|\'(?:[^\'\\\n]|\\.)*\'').match(text, at)
        if quoted:
            at = quoted.end()
            continue
        character = text[at]
        if character in "([{":
            depth += 1
        elif character in ")]}":
            if depth == 0:
                return [*arguments, text[begin:at].strip()]
            depth -= 1
        elif character == "," and depth == 0:
            arguments.append(text[begin:at].strip())
            begin = at + 1
        at += 1
    raise CannotTell("a call that is not closed")


def texts_of(expression: str, text: str, at: int) -> set[str]:
    """Returns every possible format of the expression at this position of the text."""
    plain = literal(expression)
    if plain is not None:
        return {plain}
    choice = re.fullmatch(r'[^"?]*\?\s*(L?"(?:[^"\\]|\\.)*")\s*:\s*(L?"(?:[^"\\]|\\.)*")', expression)
    if choice:
        return {literal(choice[1]), literal(choice[2])}
    if not _IDENTIFIER.fullmatch(expression):
        raise CannotTell(expression)
    constant = re.search(
        rf'constexpr (?:char|wchar_t) {expression}\[\] =\s*((?:L?"(?:[^"\\]|\\.)*"\s*)+);', text)
    if constant:
        return {literal(constant[1])}
    return _texts_of_parameter(expression, text, at)


def _texts_of_parameter(name: str, text: str, at: int) -> set[str]:
    """Returns the arguments that the file's callers pass for a function's format parameter."""
    declared = [match for match in re.finditer(
        rf"\b(\w+)\(const (?:char|wchar_t)\* {name}\) noexcept {{", text) if match.start() < at]
    if not declared:
        raise CannotTell(name)
    found: set[str] = set()
    for call in re.finditer(rf"\b{declared[-1][1]}\s*\((?!const )", text):
        given = literal(arguments_behind(text, call.end())[0])
        if given is None:
            raise CannotTell(f"{declared[-1][1]} with an argument that is not a literal")
        found.add(given)
    if not found:
        raise CannotTell(f"{declared[-1][1]}, which is never called")
    return found


def log_calls() -> dict[str, set[str]]:
    """Returns every message with the files that log it. Fails for a call that it cannot parse."""
    messages: dict[str, set[str]] = {}
    for path in program_files():
        text = without_comments(path.read_text("utf-8"))
        for call in _CALL.finditer(text):
            if text[: call.start()].rstrip().endswith("int"):
                continue  # the declaration
            place = f"{path.relative_to(ROOT)}:{text.count(chr(10), 0, call.start()) + 1}"
            try:
                found = texts_of(arguments_behind(text, call.end())[0], text, call.start())
            except CannotTell as unclear:
                raise AssertionError(f"{place}: cannot extract the message: {unclear}") from unclear
            for message in found:
                messages.setdefault(message, set()).add(place.rsplit(":", 1)[0])
    return messages


def loose_message_texts() -> set[str]:
    """Returns all literals of the program that look like messages, wherever they are used."""
    looks_like = re.compile(r"<+ ?\w[\w ]*>+ .*|DLL .*|\*\*\* .*|exception message .*", re.DOTALL)
    found = set()
    for path in program_files():
        text = without_comments(path.read_text("utf-8"))
        if path.name == "string_table.h":
            continue  # the texts of the result file
        for match in _LITERAL.finditer(text):
            if looks_like.fullmatch(match[1]):
                found.add(literal(match[0]))
    return found


def request_failures() -> set[str]:
    """Returns the texts of the HTTP layer's own exceptions."""
    found = set()
    for path in sorted((ROOT / "socket").iterdir()):
        if path.suffix not in (".cpp", ".h"):
            continue
        text = without_comments(path.read_text("utf-8"))
        for call in re.finditer(r"\b(?:throw Exception|ThrowRefusal)\(", text):
            given = literal(arguments_behind(text, call.end())[0])
            if given is not None:
                found.add(given)
    return found


def log_prefix() -> str:
    """Returns the printf format of the prefix of each message."""
    text = without_comments((ROOT / "debuglog/debug_log.cpp").read_text("utf-8"))
    # For each number: the text before it, its width, and the character after it.
    numbers = re.findall(
        r'PutNumber\((?:PutText\(end, L"([^"]*)"\)|end), [^;]+, (\d), L\'(.)\'\);', text)
    assert len(numbers) == 10, numbers
    return "".join(f"{before}%0{width}d{after}" for before, width, after in numbers) + " "


def result_texts() -> list[str]:
    """Returns the formats of the result file in order, with the line of an account last."""
    text = (ROOT / "uploader/string_table.h").read_text("utf-8")
    texts = [re.search(rf'KYD_TEXT_{number} \\\n\s*"(.*)"\n', text)[1] for number in (101, 102, 103)]
    line = re.search(r'kResultErrorLine\[\] = L"(.*)";',
                     (ROOT / "uploader/result_texts.h").read_text("utf-8"))[1]
    return [one.replace("\\r\\n", "\n") for one in [*texts, line]]


def as_pattern(printf_format: str) -> str:
    """Returns a regular expression for all outputs of a format."""
    pieces = re.split(r"(%0?\d*[ds])", printf_format)
    return "".join(
        {"d": r"-?\d+", "s": ".*"}[piece[-1]] if piece.startswith("%") and len(piece) > 1
        else re.escape(piece) for piece in pieces)
