"""The operator guide matches the program."""

import re

import pytest

from . import sources
from .markdown import documents

FEWEST_MESSAGES = 50  # far fewer than there are; fewer means that the extraction is broken


@pytest.fixture(scope="module")
def guide():
    return documents()["docs/operator-guide.md"]


@pytest.fixture(scope="module")
def logged():
    return sources.log_calls()


def listed(guide, section, header):
    """Returns the rows of a table and their first cells, each of which must be one code span."""
    rows = guide.table_rows(section, header)
    texts = []
    for row in rows:
        match = re.fullmatch(r"`([^`]+)`", row[0])
        assert match, f"no message: {row[0]}"
        texts.append(match[1])
    assert len(texts) == len(set(texts)), "duplicate rows"
    return rows, texts


def test_extraction_finds_the_messages_of_every_part(logged):
    assert len(logged) >= FEWEST_MESSAGES
    files = {name for places in logged.values() for name in places}
    assert files >= {
        "credentials/companion_library.cpp", "credentials/credential_file.cpp",
        "socket/certificate_selection.cpp", "run/upload_run.cpp",
        "upload/upload_one_user.cpp", "uploader/flush_log_dir.cpp",
        "uploader/result_file.cpp", "uploader/run.cpp",
    }


def test_nothing_that_looks_like_a_message_escapes_the_extraction(logged):
    loose = sources.loose_message_texts()
    assert len(loose) >= FEWEST_MESSAGES
    assert loose <= set(logged)


def test_table_has_every_message_and_no_other(guide, logged):
    _, texts = listed(guide, "Messages", "Message")
    assert set(texts) - set(logged) == set(), "the program has no such messages"
    assert set(logged) - set(texts) == set(), "the guide does not explain these messages"


def test_every_message_is_explained(guide):
    rows, _ = listed(guide, "Messages", "Message")
    for row in rows:
        message, kind, meaning, remedy = row
        assert kind in ("step", "failure"), message
        assert meaning, message
        assert remedy or kind == "step", f"no remedy: {message}"


def test_failures_are_recognised_by_their_words(guide):
    """The guide's rule for recognising failures in the log holds for every message."""
    rows, texts = listed(guide, "Messages", "Message")
    failure = re.compile(r"\b(error|failed|ng|exception)\b", re.IGNORECASE)
    for row, text in zip(rows, texts):
        if text.startswith("<< Result >>"):
            continue  # the words are labels of counters
        assert (row[1] == "failure") == (failure.search(text) is not None), text


def test_table_has_every_text_of_the_http_layer_and_no_other(guide):
    _, texts = listed(guide, "Texts of failed requests", "Text")
    assert len(texts) >= 3
    assert set(texts) == sources.request_failures()


def sample_of(guide, section):
    first, last = guide.section(section)
    (block,) = (one for one in guide.blocks if first < one.line < last and one.language == "text")
    return block.lines


def test_sample_of_the_log_has_the_programs_format(guide, logged):
    lines = sample_of(guide, "Reading it")
    assert len(lines) >= 10
    messages = "|".join(sources.as_pattern(one) for one in sorted(logged))
    line_pattern = re.compile(f"{sources.as_pattern(sources.log_prefix())}(?:{messages}),")
    for line in lines:
        assert line_pattern.fullmatch(line), line


def test_sample_of_the_log_is_explained_line_by_line(guide):
    first, last = guide.section("Reading it")
    numbers = [int(match[1]) for number, line in guide.prose if first < number < last
               if (match := re.match(r"(\d+)\. ", line))]
    assert numbers == list(range(1, len(sample_of(guide, "Reading it")) + 1))


def test_sample_of_the_result_file_has_the_programs_format(guide):
    head, counts, errors, line = (sources.as_pattern(one) for one in sources.result_texts())
    text = "\n".join(sample_of(guide, "The result file")) + "\n"
    assert re.fullmatch(f"{head}{counts}{errors}(?:{line})+", text)
