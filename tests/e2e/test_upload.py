"""How a log file is processed: sending, handling the answer, moving, counting."""

import pytest

from service.log_service import SERVICE_PATH, Answer, Hold, LogService, Stage

from . import messages as say
from .harness import expect_messages

USER_AGENT = "VeltraneKeyward/1.15.0 (KydLogUploader stand-in)"

# The complete head of a request. The back ends differ in order, spacing and framing of the body; both are
# correct.
GOLDEN_HEADS = {
    "linux": (
        "POST /idp/api/keyward/v1/log/sso HTTP/1.1\r\n"
        "Host: {tenant}\r\n"
        "Authorization:Bearer key-of-alice-71\r\n"
        "Connection:{connection}\r\n"
        "Content-Type:application/octet-stream\r\n"
        "Cookie:idp.session=session-of-alice-71\r\n"
        "User-Agent:" + USER_AGENT + "\r\n"
        "Transfer-Encoding:chunked\r\n"
        "\r\n"
    ),
    "windows": (
        "POST /idp/api/keyward/v1/log/sso HTTP/1.1\r\n"
        "Authorization: Bearer key-of-alice-71\r\n"
        "Connection: {connection}\r\n"
        "Content-Length: {length}\r\n"
        "Content-Type: application/octet-stream\r\n"
        "Cookie: idp.session=session-of-alice-71\r\n"
        "User-Agent: " + USER_AGENT + "\r\n"
        "Host: {tenant}\r\n"
        "\r\n"
    ),
}

BACKEND_HEADERS = {"linux": "transfer-encoding", "windows": "content-length"}

STATUSES = (200, 201, 202, 204, 301, 302, 303, 307, 308, 400, 401, 403, 404, 500, 503)


def test_files_of_one_account_are_sent_archived_and_counted(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log", "c.LOG")
    machine.upload("alice", "notes.txt").write_text("not a log file")
    order = machine.search_order("alice")
    assert len(order) == 3
    machine.run()

    assert [one.body for one in service.requests] == [machine.content("alice", n) for n in order]
    assert [one.status for one in service.requests] == [200, 200, 200]
    assert machine.upload("alice").exists()
    assert [path.name for path in machine.upload("alice").iterdir()] == ["notes.txt"]
    assert sorted(path.name for path in machine.archive("alice").iterdir()) == sorted(order)
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in("alice"),
            *(line for name in order for line in say.accepted(machine, "alice", name)),
            *say.account_out("alice"),
            *say.summary(accounts=1, send=1, ok=3),
        ],
    )


def test_request_is_exactly_what_the_service_expects(machine, service):
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log", "c.log")
    machine.run()

    golden = GOLDEN_HEADS[machine.platform.name]
    connections = ["KeepAlive", "KeepAlive", "close"]
    assert [one.head.decode("latin-1") for one in service.requests] == [
        golden.format(tenant=machine.tenant, connection=connection, length=len(one.body))
        for one, connection in zip(service.requests, connections)
    ]


def test_request_has_no_header_beyond_those_of_the_contract(machine, service):
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    machine.run()

    for request, connection in zip(service.requests, ["KeepAlive", "close"]):
        assert request.method == "POST"
        assert request.target == SERVICE_PATH
        headers = {name.lower(): value for name, value in request.headers}
        assert len(headers) == len(request.headers), "a header is repeated"
        headers.pop(BACKEND_HEADERS[machine.platform.name])
        assert headers == {
            "host": machine.tenant,
            "connection": connection,
            "cookie": "idp.session=session-of-alice-71",
            "authorization": "Bearer key-of-alice-71",
            "user-agent": USER_AGENT,
            "content-type": "application/octet-stream",
        }


def test_only_file_of_an_account_closes_the_connection(machine, service):
    for name in ("alice", "bob"):
        machine.account(name)
        machine.log(name, "only.log")
    machine.run()
    assert [one.header("Connection") for one in service.requests] == [["close"], ["close"]]


def test_every_file_has_its_own_connection(machine, service):
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log", "c.log")
    machine.run()
    assert [one.connection.number for one in service.requests] == [1, 2, 3]
    assert [one.requests for one in service.connections] == [1, 1, 1]


def test_accounts_are_handled_in_search_order_each_with_its_own_credentials(machine, service):
    machine.switch_log_on()
    for number in range(25):
        machine.account(f"user-{number * 7919 % 100:02}")
        machine.log(f"user-{number * 7919 % 100:02}", "day.log")
    machine.upload("x.log").write_text("a plain file, no account")
    machine.upload("NoSent_LogFiles").mkdir()
    machine.upload("NoSent_LogFiles", "y.log").write_text("never sent")
    order = machine.account_order()
    assert len(order) == 25
    machine.run()

    assert [one.account for one in service.requests] == order
    assert [one.body for one in service.requests] == [machine.content(n, "day.log") for n in order]
    assert machine.upload("x.log").exists()
    assert machine.upload("NoSent_LogFiles", "y.log").exists()
    assert say.summary(accounts=25, send=25, ok=25) == machine.messages()[-3:]


def test_account_without_log_files_is_counted_and_nothing_is_sent(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.upload("alice", "a.txt").write_text("no log")
    machine.run()

    assert not service.connections
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in("alice"),
            *say.account_out("alice"),
            *say.summary(accounts=1, no_send=1),
        ],
    )
    assert machine.changes() == ([], [])


@pytest.mark.parametrize("log_dir", ["nowhere", "without-upload"])
def test_missing_folder_is_an_empty_run(machine, service, log_dir):
    machine.switch_log_on()
    (machine.folder / "without-upload").mkdir()
    path = machine.platform.native_path(machine.folder / log_dir)
    machine.run([machine.tenant, path])
    expect_messages(
        machine.messages(), [*say.started(machine, log_dir=path), *say.summary()]
    )


def test_log_directory_is_used_as_passed(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.log("alice", "a.log")
    passed = machine.native() + machine.platform.separator
    machine.run([machine.tenant, passed])
    assert machine.is_archived("alice", "a.log")
    separator = machine.platform.separator
    path = separator.join([passed, "Upload", "alice", "a.log"])
    assert f"<UploadOneUser> UploadFile [{path}]" in machine.messages()


def test_relative_log_directory_is_relative_to_the_working_folder(machine, service):
    machine.account("alice")
    machine.log("alice", "a.log")
    machine.run([machine.tenant, machine.platform.separator.join(["..", "KydLog"])])
    assert machine.is_archived("alice", "a.log")


@pytest.mark.parametrize("status", STATUSES)
def test_each_status_is_handled(machine, service, status):
    machine.switch_log_on()
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    order = machine.search_order("alice")
    with LogService(service.identity) as elsewhere:
        body = b"" if status == 204 else b"said the service"
        headers = (("Content-Type", "text/plain"),)
        if 300 <= status < 400:
            headers += (("Location", f"https://{elsewhere.tenant}{SERVICE_PATH}"),)
        service.answer_with(Answer(status, body, headers), None)
        machine.run()
        assert not elsewhere.connections, "the redirect was followed"

    success = status in (200, 202)
    assert [one.method for one in service.requests] == ["POST", "POST"]
    assert [one.body for one in service.requests] == [machine.content("alice", n) for n in order]
    assert machine.is_archived("alice", order[0]) == success
    assert machine.is_waiting("alice", order[0]) != success
    assert machine.is_archived("alice", order[1])
    assert machine.credential("alice").exists() == (status != 401)
    first = (
        say.accepted(machine, "alice", order[0], status)
        if success
        else say.refused(machine, "alice", order[0], status, body.decode())
    )
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in("alice"),
            *first,
            *say.accepted(machine, "alice", order[1]),
            *say.account_out("alice"),
            *say.summary(accounts=1, send=1, ok=1 + success, error=1 - success),
        ],
    )


def test_refused_credentials_are_deleted_and_the_other_files_still_sent(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.account("bob")
    machine.logs("alice", "a.log", "b.log")
    machine.log("bob", "c.log")
    order = machine.search_order("alice")
    service.decide = lambda request: (
        Answer(401, b"credentials refused") if request.account == "alice" else None
    )
    machine.run()

    assert not machine.credential("alice").exists()
    assert machine.credential("bob").exists()
    sent = [one for one in service.requests if one.account == "alice"]
    assert [one.body for one in sent] == [machine.content("alice", name) for name in order]
    assert machine.is_waiting("alice", "a.log") and machine.is_waiting("alice", "b.log")
    assert machine.is_archived("bob", "c.log")
    alice = [
        *say.account_in("alice"),
        *say.refused(machine, "alice", order[0], 401, "credentials refused"),
        # The second attempt logs that there is no file left to delete.
        *say.tried(machine, "alice", order[1]),
        "<DeleteAuthFile> failed.",
        "<UploadOneUser> Error [401, credentials refused]",
        *say.account_out("alice"),
    ]
    bob = [
        *say.account_in("bob"),
        *say.accepted(machine, "bob", "c.log"),
        *say.account_out("bob"),
    ]
    accounts = {"alice": alice, "bob": bob}
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *(line for name in machine.account_order() for line in accounts[name]),
            *say.summary(accounts=2, send=2, ok=1, error=2),
        ],
    )

    # The next run finds no credentials for alice.
    machine.run()
    assert len(service.requests) == 3


def test_file_that_the_archive_already_has_stays_and_is_sent_again(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.log("alice", "a.log")
    machine.archived("alice", "a.log", b"of an earlier run\n")
    machine.run()
    assert machine.archive("alice", "a.log").read_bytes() == b"of an earlier run\n"
    assert machine.upload("alice", "a.log").exists()
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in("alice"),
            *say.accepted(machine, "alice", "a.log", move_error=183),
            *say.account_out("alice"),
            *say.summary(accounts=1, send=1, ok=1),
        ],
    )
    machine.run()
    assert len(service.requests) == 2


def test_failed_files_before_a_broken_connection_are_not_reported_by_account(machine, service):
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    service.answer_with(Answer(500), Answer(drop=Stage.BEFORE_ANSWER))
    machine.run()
    text = machine.result_file().decode("utf-16-le")
    assert "      Upload target           : 0\r\n" in text
    assert "      Upload error    : 1\r\n" in text
    assert "[Error file information]" not in text


def broken_off(status):
    # No reset, which could overtake the bytes sent before it.
    return Answer(status, b"x" * 1000, drop=Stage.ANSWER_BODY, drop_after=10)


@pytest.mark.parametrize("status", [401, 500])
def test_refusal_with_a_truncated_body_keeps_the_file(machine, service, status):
    machine.account("alice")
    machine.log("alice", "a.log")
    service.answer_with(broken_off(status))
    machine.run()
    assert machine.is_waiting("alice", "a.log")
    assert machine.credential("alice").exists() == (status != 401)


@pytest.mark.parametrize("status", [401, 500])
def test_refusal_with_a_truncated_body_ends_the_run(machine, service, status):
    if machine.platform.name == "windows":
        pytest.skip("Wine takes a truncated body as complete")
    machine.switch_log_on()
    machine.account("alice")
    machine.account("bob")
    first, second = machine.account_order()
    for name in (first, second):
        machine.log(name, "a.log")
    service.answer_with(broken_off(status))
    machine.run()

    assert len(service.requests) == 1
    assert machine.is_waiting(first, "a.log") and machine.is_waiting(second, "a.log")
    assert machine.credential(first).exists() == (status != 401)
    assert not machine.result_files()
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in(first),
            *say.tried(machine, first, "a.log"),
            *(["<DeleteAuthFile> deleted auth file."] if status == 401 else []),
            f"<UploadOneUser> exception [{first}]",
            *say.stopped(),
        ],
    )


def test_directory_that_looks_like_a_log_file_ends_the_run(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.account("bob")
    first, second = machine.account_order()
    machine.log(second, "a.log")
    machine.upload(first, "folder.log").mkdir()
    machine.run()

    assert not service.connections
    assert machine.is_waiting(second, "a.log")
    assert machine.upload(first, "folder.log").is_dir()
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in(first),
            *say.tried(machine, first, "folder.log"),
            f"<UploadOneUser> exception [{first}]",
            *say.stopped(),
        ],
    )


def test_files_sent_before_the_run_ends_early_are_reported(machine, service):
    machine.switch_log_on()
    for name in ("alice", "bob", "carol"):
        machine.account(name)
    first, second, third = machine.account_order()
    machine.log(first, "a.log")
    machine.upload(second, "folder.log").mkdir()
    machine.log(third, "c.log")
    machine.run()

    assert machine.is_archived(first, "a.log")
    assert machine.is_waiting(third, "c.log")
    text = machine.result_file().decode("utf-16-le")
    assert "      Total                   : 2\r\n" in text
    assert "      Upload target           : 1\r\n" in text
    assert "      Not subject to upload   : 0\r\n" in text
    assert "      Upload success  : 1\r\n" in text
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in(first),
            *say.accepted(machine, first, "a.log"),
            *say.account_out(first),
            *say.account_in(second),
            *say.tried(machine, second, "folder.log"),
            f"<UploadOneUser> exception [{second}]",
            *say.stopped(),
        ],
    )


def test_files_of_any_size_arrive_byte_for_byte(machine, service):
    machine.account("alice")
    pattern = bytes(range(256)) + b"\r\n\x1a\x00"
    for size in (0, 1, 65535, 65536, 65537, 5 * 1024 * 1024 + 3):
        content = (pattern * (size // len(pattern) + 1))[:size]
        machine.log("alice", f"{size}.log", content)
    order = machine.search_order("alice")
    machine.run()
    assert [one.body for one in service.requests] == [
        machine.content("alice", name) for name in order
    ]
    assert all(machine.is_archived("alice", name) for name in order)


TEXT = ("Content-Type", "text/plain")

# Body of a refusal, its headers, and the text that the log shows.
ANSWER_TEXTS = [
    (b"", (), ""),
    (b"without a type", (), "without a type"),
    (b'{"title":"no"}', (("Content-Type", "application/problem+json"),), '{"title":"no"}'),
    (b"\x00\x01", (("Content-Type", "image/png"),), ""),
    (b"unknown", (("Content-Type", "text/plain; charset=gbk"),), "unknown"),
    (b"latin-1", (("Content-Type", "text/plain; charset=iso-8859-1"),), "latin-1"),
    (b"a type that is none", (("Content-Type", ";;=,"),), "a type that is none"),
    (b"before\x00after", (TEXT,), "before"),
    ("größer 日本 \U0001f600".encode(), (TEXT,), "größer 日本 \U0001f600"),
    (b"%s%n%d%%%ls", (TEXT,), "%s%n%d%%%ls"),
    (b"one\ntwo\r\nthree", (TEXT,), "one\ntwo\r\nthree"),
    (b"ends in a comma,\r\n", (TEXT,), "ends in a comma,\r\n"),
]


def test_body_of_a_refusal_is_logged_as_text_whatever_its_type(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.logs("alice", *(f"{number:02}.log" for number in range(len(ANSWER_TEXTS))))
    order = machine.search_order("alice")
    service.answer_with(*(Answer(500, body, headers) for body, headers, _ in ANSWER_TEXTS))
    machine.run()
    expected = say.started(machine) + say.account_in("alice")
    for name, (_, _, shown) in zip(order, ANSWER_TEXTS):
        expected += say.refused(machine, "alice", name, 500, shown)
    expected += say.account_out("alice")
    expected += say.summary(accounts=1, send=1, error=len(ANSWER_TEXTS))
    expect_messages(machine.messages(), expected)


def test_body_that_is_invalid_utf8_does_not_end_the_run(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    service.answer_with(Answer(500, b"bad \xff\xfe\xc3( end", (TEXT,)))
    machine.run()
    errors = [text for text in machine.messages() if "Error [500, bad " in text]
    assert len(errors) == 1
    assert "<< Result >> files send ok:[1] send error:[1]" in machine.messages()


def test_long_body_is_truncated_to_one_message(machine, service):
    machine.switch_log_on()
    machine.account("alice")
    lengths = (900, 993, 994, 995, 1023, 1024, 5000, 3_000_000)
    machine.logs("alice", *(f"{number}.log" for number in range(len(lengths))))
    service.answer_with(*(Answer(500, b"x" * length, (TEXT,)) for length in lengths))
    machine.run()
    # A message holds 1023 characters, so only the first three are complete.
    whole = [f"<UploadOneUser> Error [500, {'x' * length}]" for length in lengths]
    assert [len(text) <= 1023 for text in whole] == 3 * [True] + 5 * [False]
    cut = [text[:1023] for text in whole]
    assert [text for text in machine.messages() if "Error [500" in text] == cut


def test_killed_run_loses_nothing_and_the_next_one_sends_again(machine, service):
    machine.account("alice")
    machine.logs("alice", "a.log", "b.log")
    hold = Hold()
    service.answer_with(None, Answer(200, hold=hold))
    with machine.start() as running:
        assert hold.reached.wait(30)
        running.kill()
    hold.release.set()
    machine.lost_nothing()
    assert len(machine.search_order("alice")) == 1
    machine.run()
    assert len(service.requests) == 3
    assert machine.is_archived("alice", "a.log") and machine.is_archived("alice", "b.log")


def test_no_secret_is_in_any_byte_that_a_run_leaves(machine, service):
    machine.switch_log_on()
    machine.settings(
        {
            "OutputLog": 0xFFFFFFFF,
            "OutputLogDir": machine.platform.native_path(machine.diagnostic_base),
        },
        legacy={"OutputLogDebug": 1},
    )
    for name in ("alice", "bob", "carol"):
        machine.account(name)
        machine.logs(name, "a.log", "b.log")
    first, second, third = machine.account_order()
    answers = {
        first: Answer(401, b"refused"),
        second: Answer(500, b"sorry"),
        third: Answer(200, drop=Stage.BEFORE_ANSWER),
    }
    service.decide = lambda request: answers[request.account]
    machine.run_forced()

    assert b"<UploadOneUser> Error [500, sorry]" in machine.all_bytes()
    machine.expect_no_secret()
    # Check that the search finds a secret in either encoding.
    leak = machine.working_folder / "leak"
    for encoding in ("utf-8", "utf-16-le"):
        leak.write_bytes(b"before" + machine.accounts[first].apikey.encode(encoding) + b"after")
        with pytest.raises(AssertionError):
            machine.expect_no_secret()
    leak.unlink()
