"""Credential files with any content."""

import json
import re
import shutil

import pytest

from . import messages as say
from .harness import expect_messages

GOOD = {"apikey": "key-of-alice-71", "idp_session": "session-of-alice-71"}

NOT_JSON = "<ParseUpldAuthJson> json conversion(from) error"
NO_KEY = "<ParseUpldAuthJson> apikey error"
NO_SESSION = "<ParseUpldAuthJson> idp_session error"
NOT_DECRYPTED = "<Read AuthFile> Decrypt error"


@pytest.fixture
def alice(machine, service):
    """A machine with an account that has a file to send but no credentials yet."""
    machine.switch_log_on()
    machine.account("alice", seal=False)
    machine.log("alice", "a.log")
    return machine


def expect_not_sent(machine, service, message):
    """Runs the program: the account is processed, its credentials are unusable, nothing else happens."""
    machine.run()
    assert not service.connections
    assert machine.is_waiting("alice", "a.log")
    assert machine.changes() == ([], [])
    expect_messages(
        machine.messages(),
        [*say.started(machine), message, *say.summary(accounts=1, no_send=1)],
    )


def expect_sent(machine, service):
    machine.run()
    assert [one.status for one in service.requests] == [200]
    assert machine.is_archived("alice", "a.log")
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *say.account_in("alice"),
            *say.accepted(machine, "alice", "a.log"),
            *say.account_out("alice"),
            *say.summary(accounts=1, send=1, ok=1),
        ],
    )


def test_missing_file_is_error_2(alice, service):
    expect_not_sent(alice, service, "<Read AuthFile> CreateFile error (2)")


def test_missing_folder_is_error_3(alice, service):
    alice.credential("alice").parent.rmdir()
    expect_not_sent(alice, service, "<Read AuthFile> CreateFile error (3)")


def test_missing_tree_is_error_3(alice, service):
    alice.credential("alice").parent.rmdir()
    (alice.log_dir / "LogWork").rmdir()
    expect_not_sent(alice, service, "<Read AuthFile> CreateFile error (3)")


def test_folder_in_place_of_the_file_is_refused(alice, service):
    alice.credential("alice").mkdir()
    expect_not_sent(alice, service, re.compile(r"<Read AuthFile> CreateFile error \([1-9]\d*\)"))


def test_empty_file_is_refused(alice, service):
    alice.credential("alice").touch()
    expect_not_sent(alice, service, re.compile(r"<Read AuthFile> GetFileSize error \(\d+\)"))


def test_file_that_another_program_holds_is_error_32(alice, service):
    alice.seal("alice")
    path = alice.credential("alice")
    if alice.platform.name == "linux":
        import fcntl  # not available on Windows

        with path.open("rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            expect_not_sent(alice, service, "<Read AuthFile> CreateFile error (32)")
        return
    with alice.held_by_another(path):
        expect_not_sent(alice, service, "<Read AuthFile> CreateFile error (32)")


def expect_each_account_not_sent(machine, service, messages):
    """Runs the program over many accounts; `messages` holds the one message of each account."""
    machine.run()
    assert not service.connections
    assert machine.changes() == ([], [])
    expect_messages(
        machine.messages(),
        [
            *say.started(machine),
            *(messages[name] for name in machine.account_order()),
            *say.summary(accounts=len(messages), no_send=len(messages)),
        ],
    )


def test_files_that_cannot_be_decrypted_are_refused(machine, service):
    machine.switch_log_on()
    machine.account("good")
    good = machine.credential("good").read_bytes()
    shutil.rmtree(machine.upload("good"))
    contents = {
        "one byte": b"\x00",
        "short": b"x" * 31,
        "plain json": json.dumps(GOOD).encode("utf-16-le"),
        "head of a container": good[:4] + bytes(100),
        "a megabyte": bytes(range(256)) * 4000,
        "last two bytes cut off": good[:-2],
        "half": good[: len(good) // 2],
        "twice": good + good,
    }
    for at in (0, 4, 16, 20, len(good) - 1):
        changed = bytearray(good)
        changed[at] ^= 1
        contents[f"byte {at} changed"] = bytes(changed)
    for name, content in contents.items():
        machine.account(name, seal=False)
        machine.log(name, "a.log")
        machine.credential(name).write_bytes(content)
    expect_each_account_not_sent(machine, service, dict.fromkeys(contents, NOT_DECRYPTED))


def expect_not_decrypted(machine, service, contents):
    """Runs the program over one account for each of these credential files."""
    machine.switch_log_on(OutputLogSize=50_000_000)
    for at, content in enumerate(contents):
        machine.account(f"case-{at:04}", seal=False)
        machine.log(f"case-{at:04}", "a.log")
        machine.credential(f"case-{at:04}").write_bytes(content)
    names = [f"case-{at:04}" for at in range(len(contents))]
    expect_each_account_not_sent(machine, service, dict.fromkeys(names, NOT_DECRYPTED))


@pytest.fixture
def sealed(machine, tmp_path):
    path = tmp_path / "sealed.dat"
    machine.platform.seal(path, json.dumps(GOOD).encode("utf-8"))
    return path.read_bytes()


def test_truncated_file_is_refused(machine, service, sealed):
    expect_not_decrypted(machine, service, [sealed[:at] for at in range(1, len(sealed))])


def test_file_of_which_any_bit_is_wrong_is_refused(machine, service, sealed):
    number = int.from_bytes(sealed, "big")
    flipped = [number ^ (1 << bit) for bit in range(8 * len(sealed))]
    contents = [one.to_bytes(len(sealed), "big") for one in flipped]
    assert len(set(contents)) > 1000
    expect_not_decrypted(machine, service, contents)


def test_file_of_100_megabytes_is_refused(machine, service, sealed):
    expect_not_decrypted(machine, service, [sealed + bytes(100_000_000), bytes(100_000_000)])


def test_file_of_another_key_is_refused(alice, service):
    alice.seal("alice")
    alice.use_own_program_folder()
    (alice.program_folder / "Corvid.key").write_text("ab" * 32 + "\n")
    expect_not_sent(alice, service, NOT_DECRYPTED)


USELESS_TEXTS = [
    ("", NOT_JSON),
    ("   ", NOT_JSON),
    ("not json", NOT_JSON),
    ('{"apikey":"a","idp_session":"b"', NOT_JSON),
    ('{"apikey":"a","idp_session":"b"} more', NOT_JSON),
    ('{"apikey":"a","idp_session":"b",}', NOT_JSON),
    ("{'apikey':'a'}", NOT_JSON),
    ("{}", NO_KEY),
    ("[]", NO_KEY),
    ("null", NO_KEY),
    ("7", NO_KEY),
    ('"apikey"', NO_KEY),
    ('[{"apikey":"a","idp_session":"b"}]', NO_KEY),
    ('{"idp_session":"b"}', NO_KEY),
    ('{"apikey":71,"idp_session":"b"}', NO_KEY),
    ('{"apikey":null,"idp_session":"b"}', NO_KEY),
    ('{"apikey":true,"idp_session":"b"}', NO_KEY),
    ('{"apikey":["a"],"idp_session":"b"}', NO_KEY),
    ('{"apikey":{"a":"a"},"idp_session":"b"}', NO_KEY),
    ('{"apikey":"","idp_session":"b"}', NO_KEY),
    ('{"Apikey":"a","idp_session":"b"}', NO_KEY),
    ('{"apikey":1,"apikey":"a","idp_session":"b"}', NO_KEY),
    ('{"apikey":"\\ud800","idp_session":"b"}', NOT_JSON),
    ('{"apikey":"\\udc00\\ud800","idp_session":"b"}', NOT_JSON),
    ('{"apikey":"\\ud800x","idp_session":"b"}', NOT_JSON),
    ('{"apikey":"a","idp_session":"\\ud83d\\u0041"}', NOT_JSON),
    ('{"apikey":"a"}', NO_SESSION),
    ('{"apikey":"a","idp_session":71}', NO_SESSION),
    ('{"apikey":"a","idp_session":null}', NO_SESSION),
    ('{"apikey":"a","idp_session":""}', NO_SESSION),
    ('{"apikey":"a","idp":{"session":"b"}}', NO_SESSION),
]


def test_texts_without_usable_credentials_are_refused(machine, service):
    machine.switch_log_on()
    messages = {}
    for number, (text, message) in enumerate(USELESS_TEXTS):
        name = f"case-{number:02}"
        machine.account(name, seal=False)
        machine.log(name, "a.log")
        machine.seal_text(name, text)
        messages[name] = message
    expect_each_account_not_sent(machine, service, messages)


@pytest.mark.parametrize("closed", [False, True], ids=["open", "closed"])
@pytest.mark.parametrize("bracket", ["[]", "{}"], ids=["arrays", "objects"])
def test_deeply_nested_text_does_not_crash(alice, service, bracket, closed):
    depth = 300_000
    opening = "[" if bracket == "[]" else '{"a":'
    inner = opening * depth + ("1" + bracket[1] * depth if closed else "")
    alice.seal_text("alice", inner)
    alice.run()
    assert not service.connections
    messages = alice.messages()
    assert messages[:2] == say.started(alice)
    assert messages[2] in ([NO_KEY, NOT_JSON] if closed else [NOT_JSON])
    assert messages[3:] == say.summary(accounts=1, no_send=1)


MORE_MEMBERS = [
    {},
    {"other": [1, 2.5, None, {"deep": ["x"]}], "größer": "日本"},
    {"large": "x" * 3_000_000},
    {"cert": {}},
    {"cert": None},
    {"cert": 5},
    {"cert": "text"},
    {"cert": ["hash"]},
    {"cert": {"hash": "", "store": "", "base64encoded": ""}},
    {"cert": {"hash": 1, "store": 2, "base64encoded": 3}},
    {"cert": {"hash": "00" * 20}},
    {"cert": {"store": "user"}},
    {"cert": {"hash": "00" * 20, "store": "nowhere"}},
    {"cert.hash": "00" * 20, "cert.store": "user", "cert.base64encoded": "AAAA"},
]


def test_further_members_are_ignored(machine, service):
    machine.switch_log_on()
    for number, more in enumerate(MORE_MEMBERS):
        machine.account(f"case-{number:02}", **more)
        machine.log(f"case-{number:02}", "a.log")
    order = machine.account_order()
    machine.run()
    assert [one.account for one in service.requests] == order
    expected = say.started(machine)
    for name in order:
        expected += say.account_in(name)
        expected += say.accepted(machine, name, "a.log")
        expected += say.account_out(name)
    count = len(MORE_MEMBERS)
    expected += say.summary(accounts=count, send=count, ok=count)
    expect_messages(machine.messages(), expected)


def test_white_space_and_escapes_are_json_as_usual(alice, service):
    text = ' \r\n\t{ "idp_session" : "session-of-\\u0061lice-71" ,\n"apikey":"key-of-alice-71"} \n'
    alice.seal_text("alice", text)
    expect_sent(alice, service)


def test_first_of_two_members_of_one_name_counts(alice, service):
    text = '{"apikey":"key-of-alice-71","apikey":"other","idp_session":"session-of-alice-71"}'
    alice.seal_text("alice", text)
    expect_sent(alice, service)


def test_session_counts_up_to_its_first_nul(alice, service):
    alice.seal("alice", idp_session="session-of-alice-71\x00 and more")
    expect_sent(alice, service)


@pytest.mark.parametrize(
    "values",
    [
        {"apikey": "key\r\nX-Injected: 1"},
        {"apikey": "key\nX-Injected: 1"},
        {"apikey": "key\rX-Injected: 1"},
        {"apikey": "key\x00more"},
        {"idp_session": "session\r\nX-Injected: 1"},
        {"idp_session": "session\r\n\r\nPOST / HTTP/1.1"},
    ],
    ids=lambda values: repr(values)[:60],
)
def test_control_characters_in_credentials_never_reach_the_wire(alice, service, values):
    alice.seal("alice", **values)
    alice.run()
    assert not service.requests
    assert alice.is_waiting("alice", "a.log")
    expect_messages(
        alice.messages(),
        [
            *say.started(alice),
            *say.account_in("alice"),
            *say.tried(alice, "alice", "a.log"),
            *say.transport_failure("alice"),
            *say.summary(accounts=1),
        ],
    )


def test_unusable_credentials_do_not_affect_other_accounts(machine, service):
    machine.switch_log_on()
    broken = {
        "bob": b"garbage",
        "carol": b"",
        "dave": None,
    }
    for name in ("alice", "bob", "carol", "dave", "erin"):
        machine.account(name, seal=name not in broken)
        machine.log(name, "a.log")
        if broken.get(name) is not None:
            machine.credential(name).write_bytes(broken[name])
    machine.run()
    assert machine.is_archived("alice", "a.log") and machine.is_archived("erin", "a.log")
    for name in broken:
        assert machine.is_waiting(name, "a.log")
    assert machine.messages()[-3:] == say.summary(accounts=5, send=2, no_send=3, ok=2)


def test_credentials_are_not_carried_over_from_the_previous_account(machine, service):
    """The previous account's record must not fill in a member that is missing in the next one's text."""
    machine.switch_log_on()
    for name in ("alice", "bob", "carol"):
        machine.account(name, seal=False)
        machine.log(name, "a.log")
    first, second, third = machine.account_order()
    machine.seal(first)
    machine.seal_text(second, json.dumps({"idp_session": machine.accounts[second].idp_session}))
    machine.seal_text(third, json.dumps({"apikey": machine.accounts[third].apikey}))
    machine.run()
    assert [one.account for one in service.requests] == [first]
    assert machine.messages()[-6:] == [
        *say.account_out(first),
        NO_KEY,
        NO_SESSION,
        *say.summary(accounts=3, send=1, no_send=2, ok=1),
    ]


def test_run_leaves_the_credential_file_as_it_is(alice, service):
    alice.seal("alice")
    before = alice.credential("alice").read_bytes()
    expect_sent(alice, service)
    assert alice.credential("alice").read_bytes() == before
