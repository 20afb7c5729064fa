"""Directory questions on the sample directory: exact answers, the reply cache, passwords, limits."""

import fcntl
import os
import re
import select
from concurrent.futures import ThreadPoolExecutor

import pytest

from harness import directory, sandbox, wire
from harness.daemon import log_text
from harness.wire import pb

GROUPS, GROUPS_OF, PASSWORDS, USERS = directory.GROUPS, directory.GROUPS_OF, directory.PASSWORDS, directory.USERS
NO_SUCH = 32
CYCLE = [f"{uid}@corp.test" for uid in ("alice", "bob", "carol", "dave")]


def named(groups):
    """The cn of the groups of an answer, whose dn are checked."""
    names = [group.cn for group in groups]
    assert [group.dn for group in groups] == [GROUPS[name] for name in names]
    return names


@pytest.mark.parametrize("name, full, found", [
    ("", 0, list(USERS)),
    ("^AD", 0, ["adele Andrews"]),
    ("ALICE.ADAMS@CORP.TEST", 1, ["Alice Adams"]),
    ("corp.test", 0, ["Alice Adams", "Bob Brown", "Chad Cole", "Dave, the Diver", "Zo\u00eb \u00c5ngstr\u00f6m"]),
    ("\u00e5ngstr\u00d6m", 0, ["Zo\u00eb \u00c5ngstr\u00f6m"]),
])
def test_user_search__finds(connection, name, full, found):
    answer = connection.user_search(name, full)
    assert (answer.result, [user.cn for user in answer.userList]) == (0, found)
    for user in answer.userList:
        dn, uid, domain, upn = USERS[user.cn]
        principal = f"{uid}@{domain}"
        assert (user.dn, user.uid, user.domain_dns, user.user_ln) == (dn, uid, domain, principal)
        assert user.upn == (upn or principal)
        assert not user.groupList


@pytest.mark.parametrize("kind, request_message, result, groups", [
    (wire.GROUP_SEARCH, pb.GroupSearchRequest(name="", fullmatch=0), 0, list(GROUPS)),
    (wire.GROUP_SEARCH, pb.GroupSearchRequest(name="^\u00dcB", fullmatch=0), 0, ["\u00dcber G\u00e4ste"]),
    (wire.GROUP_GROUPS, pb.GroupSearchRequest(name=GROUPS["Admins"], fullmatch=1), 0, ["Engineers", "Staff"]),
    (wire.GROUP_GROUPS, pb.GroupSearchRequest(name="staf", fullmatch=0), 0, ["Admins", "Engineers"]),
    (wire.GROUP_GROUPS, pb.GroupSearchRequest(name="^Staff", fullmatch=1), NO_SUCH, []),  # no anchors here
    (wire.USER_GROUPS, pb.UserGroupQueryRequest(user_ln="Alice.Adams@Corp.Test"), 0, GROUPS_OF["alice"]),
    (wire.USER_GROUPS, pb.UserGroupQueryRequest(user_ln=directory.user_dn("Dave\\2c the Diver")), 0, GROUPS_OF["dave"]),
    (wire.USER_GROUPS, pb.UserGroupQueryRequest(user_ln="LAB\\alice"), NO_SUCH, []),
])
def test_groups__of_searches_groups_and_users(connection, kind, request_message, result, groups):
    answer = connection.ask(kind, request_message)
    assert (answer.result, named(answer.groupList)) == (result, groups)


@pytest.mark.parametrize("is_dn, groups, result, expected", [
    (0, ["labrats", "nobody", "STAFF"], 0, [("labrats", ["rat@lab.test"]), ("Staff", CYCLE)]),
    (1, [GROUPS["Engineers"], "Staff"], 0, [("Engineers", CYCLE)]),
    (2, [GROUPS["Engineers"], "Staff"], 0, [("Staff", CYCLE)]),  # only 1 means DNs
    (0, ["Domain Users", "\u00fcber g\u00e4ste"], 0, [("Domain Users", CYCLE[:1]), ("\u00dcber G\u00e4ste", [])]),
    (0, [GROUPS["Staff"]], NO_SUCH, []),
])
def test_all_users__of_groups_in_the_given_order(connection, is_dn, groups, result, expected):
    answer = connection.ask(wire.ALL_USERS, pb.AllUserQueryRequest(isDN=is_dn, grouplist=groups))
    got = [(record.group_dn, sorted(record.userlist)) for record in answer.groupuserlist]
    assert (answer.result, got) == (result, [(GROUPS[name], users) for name, users in expected])


def test_user_info__names_and_groups_twice_alike(connection):
    for asked, cn in (("CORP\\alice", "Alice Adams"), ("rat@lab.test", "Lab Rat"), ("chad", "Chad Cole")):
        dn, uid, domain, upn = USERS[cn]
        answer = connection.user_info(asked)
        info = answer.userInfo
        assert (answer.result, info.user_ln, info.dn, info.uid, info.domain_dns, info.cn, info.upn) == (
            0, asked, dn, uid, domain, cn, upn)
        assert named(info.groupList) == GROUPS_OF[uid]
        assert connection.user_info(asked) == answer
        # A NUL does not make one user another one, in the directory or in the reply cache.
        unknown = connection.user_info(asked + "\0")
        assert (unknown.result, unknown.userInfo.user_ln) == (NO_SUCH, asked + "\0")
        assert not any((unknown.userInfo.dn, unknown.userInfo.cn, unknown.userInfo.uid, unknown.userInfo.groupList))


def test_reply_cache__switched_off(daemon):
    daemon.start("--verbose", "--disable-reply-cache", "--process-num", "1", workers=1, files=directory.files())
    daemon.wait_line("reply cache was disabled ...", level="INF")
    with wire.Connection() as connection:
        assert connection.user_info("alice") == connection.user_info("alice")
        assert connection.bind("10.2.0.1", "CORP\\alice") == 0
        assert connection.query("10.2.0.1") == connection.query("10.2.0.1")
    # Everything is asked anew, and told that it could not be kept.
    assert daemon.count_lines("Error: fail to update reply cache", level="INF") >= 4
    assert daemon.count_lines(re.compile("in reply cache")) == 0


@pytest.mark.parametrize("user, password, right", [
    ("alice", PASSWORDS["alice"], True),
    ("dave", PASSWORDS["dave"], True),
    ("rat@lab.test", PASSWORDS["rat"], True),
    ("alice", PASSWORDS["alice"] + "\0", False),
    ("alice\0", PASSWORDS["alice"], False),
    ("alice", "", False),
    ("carol", "{CLEARTEXT}carol", False),
    ("bob", PASSWORDS["bob"], False),  # disabled
    ("chad", "", False),  # has none
    ("alice", "x" * 1_000_000, False),
])
def test_validate__proves_or_refuses(connection, user, password, right):
    assert connection.validate(user, password) == (0 if right else -1)


def test_validate__no_password_reaches_the_log(connection):
    secrets = "hunter2-in-no-log", PASSWORDS["alice"]
    assert [connection.validate("alice", secret) for secret in secrets] == [-1, 0]
    connection.send(wire.frame(wire.VALIDATE, b"\x12\x11" + secrets[0].encode()))  # and no user
    connection.expect_closed()
    assert "alice" in log_text() and not [secret for secret in secrets if secret in log_text()]


def test_slow_look_up__holds_up_nobody_else(daemon):
    """The one worker's first look-ups wait for another process that builds the snapshot."""
    daemon.start("--process-num", "1", files=directory.files(), workers=1)
    with (wire.Connection() as first, wire.Connection() as second, wire.Connection() as beside,
          open(f"{sandbox.WORKDIR}/directory.db.lock", "rb+") as lock):
        fcntl.flock(lock, fcntl.LOCK_EX)
        os.unlink(f"{sandbox.WORKDIR}/directory.db")
        first.send(wire.frame(wire.USER_INFO, pb.UserInfoQueryRequest(user_ln="alice")))
        daemon.wait_line(re.compile("directory.db: No such file"), level="ERR")
        second.send(wire.frame(wire.VALIDATE, pb.UserValidateRequest(user_ln="carol", password=PASSWORDS["carol"])))
        for _ in range(20):
            assert beside.query("10.9.9.9").result != 0
        assert not select.select([first.socket, second.socket], [], [], 0)[0]
        fcntl.flock(lock, fcntl.LOCK_UN)
        assert first.receive_answer(wire.USER_INFO).userInfo.cn == "Alice Adams"
        assert second.receive_answer(wire.VALIDATE).result == 0


def test_requests__from_many_connections_at_once(served):
    """Answers never mix between the connections and threads of a worker."""
    def ask(uid):
        with wire.Connection() as connection:
            for _ in range(100):
                assert connection.user_info(uid).userInfo.uid == uid
                groups = connection.ask(wire.USER_GROUPS, pb.UserGroupQueryRequest(user_ln=uid)).groupList
                assert named(groups) == GROUPS_OF[uid]

    with ThreadPoolExecutor(15) as pool:
        list(pool.map(ask, list(GROUPS_OF) * 3))
