"""Passwords proved by the server: what is sent there, what is not, and what the log says."""

import concurrent.futures
import contextlib
import random
import re

import pytest

from harness.daemon import has_event_loop, log_text, processes
from harness.wire import pb
from harness import wire
from servers import people, workdir
from servers.slapd import LOCKED_AFTER, PEOPLE, READER, READER_PASSWORD, SUFFIX, Slapd
from servers.workdir import Questions


@pytest.fixture(scope="module")
def slapd():
    with Slapd(people.content(range(200))) as server:
        yield server


@pytest.fixture(params=["snapshot", "live"])
def source(request):
    """Where the name is looked up before the server is asked for the password."""
    return request.param


def start(daemon, slapd, source="snapshot", **more):
    """One worker: each has a memory of its own."""
    workdir.place(workdir.settings([slapd.url], READER, Schema="rfc2307bis", **more), READER_PASSWORD)
    if source == "snapshot":
        workdir.good_sync()
    daemon.start("--verbose", "--process-num", "1", keep=True, workers=1)


def test_names__right_and_wrong_cost_one_bind_each(daemon, slapd, source):
    """Awkward names, in every form; each password is right for its own user only."""
    start(daemon, slapd, source)
    with Questions() as ask:
        for uid, (_, password) in people.NOTABLE.items():
            dn = people.user_dn(uid)
            for name in (uid, f"CORP\\{uid}", f"corp.test\\{uid.upper()}", f"{uid}@CORP.test", dn, dn.upper()):
                binds = slapd.binds()
                assert ask.validate(name, password) is True, name
                assert slapd.binds() == binds + 1, name
            binds = slapd.binds()
            assert ask.validate(uid, "wrong") is False
            assert slapd.binds() == binds + 1
            assert ask.validate(uid, password) is True  # also sets the server's count back
    text = log_text()
    assert text.count("refused: wrong") == len(people.NOTABLE)
    for _, password in [*people.NOTABLE.values(), ("", READER_PASSWORD)]:
        if password not in ("back", "hash", "sea", "wild", "paren"):  # words of names and of the log itself
            assert password not in text


NOBODY = {
    "asterisk": "*", "injected": "*)(uid=*", "injected or": "alice)(|(uid=*", "closed": ")(uid=*",
    "asterisk in domain": "CORP\\*", "part": "ali*", "escaped asterisk": "\\2a", "escaped alice": "\\61lice",
    "NUL": "alice\0", "NUL first": "\0alice", "NUL and more": "alice\0*)(uid=*", "backslash": "\\", "backslashes": "\\" * 50,
    "empty": "", "blank": " ", "domain only": "CORP\\", "at only": "@corp.test", "other domain": "OTHER\\alice",
    "long": "a" * 10_000, "long asterisks": "*" * 10_000, "long backslashes": "\\" * 10_000,
    "long domain": "x" * 10_000 + "\\alice", "dn of nobody": f"cn=nobody,{PEOPLE}", "dn injected": f"cn=*,{PEOPLE}",
    "dn outside": "cn=alice,dc=elsewhere,dc=test", "suffix": SUFFIX, "reader": READER, "group": people.group_dn("staff"),
    "line end": "alice\n", "dn of all": "cn=Alice Adams,ou=people,dc=corp,dc=test)(uid=*",
}


def test_injection__matches_nobody_and_binds_nobody(daemon, slapd, source):
    start(daemon, slapd, source)
    with Questions() as ask:
        binds, filters = slapd.binds(), len(slapd.filters())
        for case, name in NOBODY.items():
            for password in ("correct horse", "wild", READER_PASSWORD):
                assert ask.validate(name, password) is False, case
            assert ask.user(name) == 32, case
        assert slapd.binds() == binds
        asked = slapd.filters()[filters:]
        assert asked
        for condition in asked:
            # "present" is asked of object classes only, and no part of a name has become a condition.
            assert not re.search(r"\((uid|cn|sAMAccountName|userPrincipalName)=[^)]*\*", condition), condition
            assert len(condition) < 5000
        for name in ("alice\0", "a" * 10_000):
            answer = ask.connection.ask(wire.ALL_USERS, pb.AllUserQueryRequest(grouplist=[name], isDN=0))
            assert answer.result == 32
        # The one whose name looks like a pattern is an ordinary user.
        assert (ask.validate("star*", "wild"), ask.validate("star*", "sea")) == (True, False)


def test_empty_password__is_never_sent(daemon, slapd, source):
    """Servers take a bind without a password for an anonymous one, and agree to it."""
    start(daemon, slapd, source)
    with Questions() as ask:
        binds = slapd.binds()
        for name in ("alice", people.user_dn("alice"), "CORP\\alice", "nobody", ""):
            for password in ("", "\0", "\0correct horse"):
                assert ask.validate(name, password) is False
        assert slapd.binds() == binds
        assert ask.validate("alice", "correct horse\0") is False


def test_repeated_wrong_password__locks_nobody(daemon, slapd):
    dn = people.user_dn("c00001")
    start(daemon, slapd)
    with Questions() as ask:
        for _ in range(4 * LOCKED_AFTER):
            assert ask.validate("c00001", "old password") is False
        # A browser with six connections, under other spellings of the name.
        with concurrent.futures.ThreadPoolExecutor(12) as pool:
            names = ["c00001", "CORP\\c00001", "C00001@corp.test", dn] * 3
            assert set(pool.map(lambda name: validate_once(name, "old password"), names)) == {False}
            assert slapd.binds(dn) == 1
            # The same at once, by a password that nobody has seen yet.
            assert set(pool.map(lambda name: validate_once(name, "typed wrong"), names)) == {False}
        assert slapd.binds(dn) == 2
        assert ask.validate("c00001", "pw c00001") is True
        assert slapd.binds(dn) == 3
        assert slapd.operational(dn, "pwdAccountLockedTime") == []
        # What was right is not remembered as such: the server has the word.
        slapd.set_password(dn, "new password")
        assert ask.validate("c00001", "pw c00001") is False
        assert ask.validate("c00001", "new password") is True


def validate_once(name, password):
    with Questions() as ask:
        return ask.validate(name, password)


def memory_of(pid):
    with open(f"/proc/{pid}/maps", encoding="utf-8") as maps, open(f"/proc/{pid}/mem", "rb") as memory:
        for line in maps:
            begin, end = (int(number, 16) for number in line.split()[0].split("-"))
            if line.split()[1].startswith("rw") and end - begin < 2**30:  # sanitizers map the whole address space
                with contextlib.suppress(OSError):
                    memory.seek(begin)
                    yield memory.read(end - begin)


@pytest.mark.parametrize("tls", ["no", "yes"], ids=["plain", "StartTLS"])
def test_memory__keeps_no_password(daemon, slapd, tls):
    start(daemon, slapd, StartTLS=tls, CACertFile=slapd.ca)
    right, wrong = "pw c00009", "nobody's password"
    with Questions() as ask:
        for _ in range(20):
            assert (ask.validate("c00009", right), ask.validate("c00010", wrong)) == (True, False)
            assert ask.validate("c00010", "pw c00010") is True
        assert ask.user("somebody new") == 32  # the reading account's is used for that
        [worker] = [pid for pid in processes() if has_event_loop(pid)]
        for password in (right, wrong, READER_PASSWORD):
            assert not any(password.encode() in piece for piece in memory_of(worker)), password


def test_memory_off__every_try_is_the_servers(daemon, slapd):
    dn = people.user_dn("c00002")
    workdir.place(workdir.settings([slapd.url], READER, Schema="rfc2307bis", general=["RefusedPasswordMemory=0"]), READER_PASSWORD)
    workdir.good_sync()
    daemon.start("--process-num", "1", keep=True, workers=1)
    with Questions() as ask:
        for _ in range(2):
            assert ask.validate("c00002", "old password") is False
    assert slapd.binds(dn) == 2


def test_verdicts__told_apart_in_the_log(daemon, slapd):
    dn = people.user_dn("c00003")
    start(daemon, slapd)
    with Questions() as ask:
        for number in range(LOCKED_AFTER):
            assert ask.validate("c00003", f"guess {number}") is False
        assert slapd.operational(dn, "pwdAccountLockedTime") != []
        binds = slapd.binds(dn)
        assert ask.validate("c00003", "pw c00003") is False
        assert slapd.binds(dn) == binds + 1
        refused = re.compile(r"password of user c00003 refused: (.*)")
        verdicts = [match[1] for match in map(refused.search, log_text().splitlines()) if match]
        assert [text.startswith("wrong") for text in verdicts] == [True] * LOCKED_AFTER + [False], verdicts
        assert re.match("(disabled|locked)", verdicts[-1]), verdicts
        # Unlocked by the administrator: nothing of the refusal is left here.
        slapd.change(f"dn: {dn}\nchangetype: modify\ndelete: pwdAccountLockedTime\n")
        assert ask.validate("c00003", "pw c00003") is True
        # Not a word of the server about the password.
        slapd.stop()
        try:
            assert ask.validate("c00004", "pw c00004") is False
            daemon.wait_line(re.compile("password of user c00004 refused: cannot tell"), level="INF")
        finally:
            slapd.start()


def test_many_at_once__no_verdict_is_anothers(daemon, slapd):
    """Right and wrong passwords of 64 users in disorder on 16 connections, look-ups among them."""
    start(daemon, slapd)
    before = slapd.binds()

    def client(number):
        choice, sent = random.Random(number), 0
        with Questions() as ask:
            for turn in range(24):
                uid = people.crowd_uid(100 + number * 4 + turn % 4)
                # Never wrong twice running: the server would lock the account.
                right = turn // 4 % 2 == 0 or choice.random() < 0.5
                password = f"pw {uid}" if right else f"pw {people.crowd_uid(100 + number * 4 + (turn + 1) % 4)}"
                assert ask.validate(uid, password) is right, (uid, password)
                sent += 1
                assert ask.user("alice")[1] == "alice"
                assert ask.user(f"unknown {number}") == 32
        return sent

    with concurrent.futures.ThreadPoolExecutor(16) as pool:
        sent = sum(pool.map(client, range(16)))
    assert slapd.binds() == before + sent
    assert daemon.stop() == 0
