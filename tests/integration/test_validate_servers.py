"""Passwords proved by the server: what is sent there, what is not, and what the log says."""

import concurrent.futures
import random
import re

import pytest

from harness import wire
from harness.daemon import log_text, memory_of
from harness.wire import pb
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
            names = [f"CORP\\{uid}", f"corp.test\\{uid.upper()}", f"{uid}@CORP.test", dn, dn.upper()]
            # The last one also sets the server's count of wrong ones back.
            for name, tried in [*((name, password) for name in names), (uid, "wrong"), (uid, password)]:
                binds = slapd.binds()
                assert ask.validate(name, tried) is (tried == password), name
                assert slapd.binds() == binds + 1, name
    text = log_text()
    assert text.count("refused: wrong") == len(people.NOTABLE)
    for password in ("correct horse", "bob's own", "stra\u00dfe", READER_PASSWORD):
        assert password not in text


NOBODY = {
    "asterisk": "*", "injected": "*)(uid=*", "injected or": "alice)(|(uid=*", "asterisk in domain": "CORP\\*", "part": "ali*",
    "escaped": "\\61lice", "NUL": "alice\0", "NUL and more": "alice\0*)(uid=*", "backslashes": "\\" * 50, "empty": "",
    "domain only": "CORP\\", "at only": "@corp.test", "long": "a" * 10_000, "long asterisks": "*" * 10_000,
    "long domain": "x" * 10_000 + "\\alice", "dn injected": f"cn=*,{PEOPLE}", "dn outside": "cn=alice,dc=elsewhere,dc=test",
    "suffix": SUFFIX, "reader": READER, "group": people.group_dn("staff"), "line end": "alice\n",
    "dn of all": "cn=Alice Adams,ou=people,dc=corp,dc=test)(uid=*",
}


def test_injection__matches_nobody_and_binds_nobody(daemon, slapd, source):
    start(daemon, slapd, source)
    with Questions() as ask:
        binds, filters = slapd.binds(), len(slapd.filters())
        for case, name in NOBODY.items():
            for password in ("correct horse", "wild", READER_PASSWORD):
                assert ask.validate(name, password) is False, case
            assert ask.user(name) == 32, case
        # Servers take a bind without a password for an anonymous one, and agree to it.
        for name in ("alice", people.user_dn("alice")):
            for password in ("", "\0", "\0correct horse"):
                assert ask.validate(name, password) is False
        assert slapd.binds() == binds
        asked = slapd.filters()[filters:]
        assert asked
        for condition in asked:
            # "present" is asked of object classes only, and no part of a name has become a condition.
            assert not re.search(r"\((uid|cn|sAMAccountName|userPrincipalName)=[^)]*\*", condition), condition
            assert len(condition) < 5000
        for name in ("alice\0", "a" * 10_000):
            assert ask.ask(wire.ALL_USERS, pb.AllUserQueryRequest(grouplist=[name], isDN=0)).result == 32
        # The one whose name looks like a pattern is an ordinary user.
        assert (ask.validate("star*", "wild"), ask.validate("star*", "sea")) == (True, False)
        assert ask.validate("alice", "correct horse\0") is False


def validate_once(name, password):
    with Questions() as ask:
        return ask.validate(name, password)


def test_repeated_wrong_password__locks_nobody(daemon, slapd):
    dn = people.user_dn("c00001")
    start(daemon, slapd)
    # Browsers with several connections, under all spellings of the name.
    names = ["c00001", "CORP\\c00001", "C00001@corp.test", dn] * 3
    with concurrent.futures.ThreadPoolExecutor(12) as pool, Questions() as ask:
        for count, password in enumerate(["old password", "old password", "typed wrong"]):
            assert set(pool.map(validate_once, names, [password] * 12)) == {False}
            assert slapd.binds(dn) == max(count, 1)
        assert ask.validate("c00001", "pw c00001") is True
        # What was right is not remembered as such: the server has the word, and may lock the account.
        for number in range(LOCKED_AFTER):
            assert ask.validate("c00001", f"guess {number}") is False
        assert ask.validate("c00001", "pw c00001") is False
        verdicts = re.findall("password of user c00001 refused: (.*) @<", log_text())[-LOCKED_AFTER - 1:]
        assert all(text.startswith("wrong") for text in verdicts[:-1]) and re.match("disabled|locked", verdicts[-1]), verdicts
        slapd.change(f"dn: {dn}\nchangetype: modify\ndelete: pwdAccountLockedTime\n")
        assert ask.validate("c00001", "pw c00001") is True


@pytest.mark.parametrize("tls", ["no", "yes"], ids=["plain", "StartTLS"])
def test_memory__keeps_no_password(daemon, slapd, tls):
    start(daemon, slapd, StartTLS=tls, CACertFile=slapd.ca)
    right, wrong = "pw c00009", "nobody's password"
    with Questions() as ask:
        for _ in range(20):
            assert (ask.validate("c00009", right), ask.validate("c00010", wrong)) == (True, False)
            assert ask.validate("c00010", "pw c00010") is True
        assert ask.user("somebody new") == 32  # the reading account's is used for that
        [worker] = daemon.workers()
        for password in (right, wrong, READER_PASSWORD):
            assert not any(password.encode() in piece for piece in memory_of(worker)), password


def test_many_at_once__no_verdict_is_anothers(daemon, slapd):
    """Right and wrong passwords of 64 users in disorder on 16 connections, look-ups among them."""
    start(daemon, slapd)
    before = slapd.binds()

    def client(number):
        choice = random.Random(number)
        with Questions() as ask:
            for turn in range(24):
                uid, other = (people.crowd_uid(100 + number * 4 + (turn + one) % 4) for one in range(2))
                # Never wrong twice running: the server would lock the account.
                right = turn // 4 % 2 == 0 or choice.random() < 0.5
                assert ask.validate(uid, f"pw {uid if right else other}") is right, uid
                assert ask.user("alice")[1] == "alice" and ask.user(f"unknown {number}") == 32

    with concurrent.futures.ThreadPoolExecutor(16) as pool:
        list(pool.map(client, range(16)))
    assert slapd.binds() == before + 16 * 24
