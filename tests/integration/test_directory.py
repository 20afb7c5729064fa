"""Directory questions on the sample directory: exact answers, the reply cache, passwords, limits."""

import fcntl
import os
import re
import select
import signal
import threading

import pytest
from Velder_pb2 import (AllUserQueryRequest, GroupSearchRequest, UserGroupQueryRequest, UserInfoQueryRequest,
                        UserValidateRequest)

from harness import directory, sandbox, wire
from harness.daemon import log_text, until, write_file

GROUPS, GROUPS_OF, PASSWORDS, USERS = directory.GROUPS, directory.GROUPS_OF, directory.PASSWORDS, directory.USERS
NO_SUCH = 32


@pytest.fixture
def connection(served):
    with wire.Connection() as one:
        yield one


def named(groups):
    """(cn, dn) pairs of the answer, checked against the directory."""
    names = [group.cn for group in groups]
    assert [group.dn for group in groups] == [GROUPS[name] for name in names]
    return names


@pytest.mark.parametrize("name, full, found", [
    ("", 0, list(USERS)),
    ("^", 0, list(USERS)),
    ("", 1, []),
    ("ad", 0, ["adele Andrews", "Alice Adams", "Chad Cole"]),
    ("^ad", 0, ["adele Andrews"]),
    ("^AD", 0, ["adele Andrews"]),
    ("^adele andrews", 1, ["adele Andrews"]),
    ("ALICE.ADAMS@CORP.TEST", 1, ["Alice Adams"]),
    ("alice", 1, ["Alice Adams"]),
    ("alice", 0, ["Alice Adams"]),
    ("corp.test", 0, ["Alice Adams", "Bob Brown", "Chad Cole", "Dave, the Diver", "Zo\u00eb \u00c5ngstr\u00f6m"]),
    ("ZO\u00cb", 0, ["Zo\u00eb \u00c5ngstr\u00f6m"]),
    ("\u00e5ngstr\u00d6m", 0, ["Zo\u00eb \u00c5ngstr\u00f6m"]),
    ("Dave, the Diver", 1, ["Dave, the Diver"]),
    ("rat", 1, ["Lab Rat"]),
    ("%", 0, []), ("_lice", 0, []), ("*", 0, []), ("a*", 1, []), ("'", 0, []), ("\\", 0, []), ("nobody", 0, []),
    ("pc-17", 0, []),
])
def test_user_search__finds(connection, name, full, found):
    answer = connection.user_search(name, full)
    assert answer.result == 0
    assert [user.cn for user in answer.userList] == found
    for user in answer.userList:
        dn, uid, domain, upn = USERS[user.cn]
        assert (user.dn, user.uid, user.domain_dns) == (dn, uid, domain)
        assert user.user_ln == f"{uid}@{domain}"
        assert user.upn == (upn or user.user_ln)
        assert not user.groupList


@pytest.mark.parametrize("name, full, found", [
    ("", 0, list(GROUPS)),
    ("^", 0, list(GROUPS)),
    ("s", 0, ["Admins", "Domain Users", "Engineers", "labrats", "Staff", "\u00dcber G\u00e4ste"]),
    ("^s", 0, ["Staff"]),
    ("STAFF", 1, ["Staff"]),
    ("^\u00dcber", 0, ["\u00dcber G\u00e4ste"]),
    ("G\u00c4STE", 0, ["\u00dcber G\u00e4ste"]),
    ("Staf", 1, []),
])
def test_group_search__finds(connection, name, full, found):
    answer = connection.ask(wire.GROUP_SEARCH, GroupSearchRequest(name=name, fullmatch=full))
    assert (answer.result, named(answer.groupList)) == (0, found)


@pytest.mark.parametrize("user, result, groups", [
    ("alice", 0, GROUPS_OF["alice"]),
    ("CORP\\alice", 0, GROUPS_OF["alice"]),
    ("corp.test\\ALICE", 0, GROUPS_OF["alice"]),
    ("alice@corp.test", 0, GROUPS_OF["alice"]),
    ("Alice.Adams@Corp.Test", 0, GROUPS_OF["alice"]),
    ("cn=alice adams, ou=people, dc=CORP, dc=test", 0, GROUPS_OF["alice"]),
    ("bob", 0, GROUPS_OF["bob"]),
    ("dave", 0, GROUPS_OF["dave"]),
    (directory.user_dn("Dave\\2c the Diver"), 0, GROUPS_OF["dave"]),
    ("chad", 0, []),
    ("LAB\\rat", 0, GROUPS_OF["rat"]),
    ("CORP\\rat", NO_SUCH, []), ("LAB\\alice", NO_SUCH, []), ("nobody", NO_SUCH, []), ("", NO_SUCH, []),
    ("Staff", NO_SUCH, []), ("alice\0", NO_SUCH, []), ("^alice", NO_SUCH, []),
])
def test_user_groups__direct_nested_and_primary(connection, user, result, groups):
    answer = connection.ask(wire.USER_GROUPS, UserGroupQueryRequest(user_ln=user))
    assert (answer.result, named(answer.groupList)) == (result, groups)


@pytest.mark.parametrize("name, full, result, groups", [
    ("Staff", 1, 0, ["Admins", "Engineers"]),
    (GROUPS["Admins"], 1, 0, ["Engineers", "Staff"]),
    ("staf", 0, 0, ["Admins", "Engineers"]),
    ("labrats", 1, 0, []),
    ("Staf", 1, NO_SUCH, []),
    ("^Staff", 1, NO_SUCH, []),  # no anchors here
])
def test_group_groups__nested_at_any_depth(connection, name, full, result, groups):
    answer = connection.ask(wire.GROUP_GROUPS, GroupSearchRequest(name=name, fullmatch=full))
    assert (answer.result, named(answer.groupList)) == (result, groups)


EVERYONE_IN_THE_CYCLE = {f"{uid}@corp.test" for uid in ("alice", "bob", "carol", "dave")}


@pytest.mark.parametrize("is_dn, groups, result, expected", [
    (0, ["Staff", "labrats"], 0, [("Staff", EVERYONE_IN_THE_CYCLE), ("labrats", {"rat@lab.test"})]),
    (0, ["labrats", "nobody", "STAFF"], 0, [("labrats", {"rat@lab.test"}), ("Staff", EVERYONE_IN_THE_CYCLE)]),
    (1, [GROUPS["Engineers"], "Staff"], 0, [("Engineers", EVERYONE_IN_THE_CYCLE)]),
    (0, ["Domain Users"], 0, [("Domain Users", {"alice@corp.test"})]),
    (0, ["\u00fcber g\u00e4ste"], 0, [("\u00dcber G\u00e4ste", set())]),
    (0, [GROUPS["Staff"]], NO_SUCH, []),
    (0, ["nobody"], NO_SUCH, []),
])
def test_all_users__of_groups_in_the_given_order(connection, is_dn, groups, result, expected):
    answer = connection.ask(wire.ALL_USERS, AllUserQueryRequest(isDN=is_dn, grouplist=groups))
    assert answer.result == result
    got = [(record.group_dn, sorted(record.userlist)) for record in answer.groupuserlist]
    assert got == [(GROUPS[name], sorted(users)) for name, users in expected]


@pytest.mark.parametrize("asked, cn", [
    ("alice", "Alice Adams"), ("CORP\\alice", "Alice Adams"), ("bob", "Bob Brown"), ("carol", "Carol Clark"),
    ("rat@lab.test", "Lab Rat"), ("zo\u00eb", "Zo\u00eb \u00c5ngstr\u00f6m"),
])
def test_user_info__names_and_groups_twice_alike(connection, asked, cn):
    dn, uid, domain, upn = USERS[cn]
    first = connection.user_info(asked)
    info = first.userInfo
    assert first.result == 0
    assert (info.user_ln, info.dn, info.uid, info.domain_dns, info.cn, info.upn) == (asked, dn, uid, domain, cn, upn)
    assert named(info.groupList) == GROUPS_OF.get(uid, named(info.groupList))
    assert connection.user_info(asked) == first


def test_user_info__unknown_user_is_answered_with_the_code_alone(connection):
    answer = connection.user_info("nobody at all")
    assert answer.result == NO_SUCH
    assert answer.userInfo.user_ln == "nobody at all"
    assert not any((answer.userInfo.dn, answer.userInfo.cn, answer.userInfo.uid, answer.userInfo.upn,
                    answer.userInfo.domain_dns, answer.userInfo.groupList))


def cache_lines(daemon, worker, user):
    return daemon.count_lines(f"Debug: in reply cache ({user})", level="DBG", pid=worker)


def test_reply_cache__answers_until_the_reload_failures_too(daemon):
    daemon.start("--verbose", files=directory.files())
    with daemon.connections_by_worker() as connections:
        (worker, one), (renewer, other) = connections.items()
        old = one.user_info("alice")
        assert one.user_info("newman").result == NO_SUCH
        write_file("directory.ldif", directory.ldif().replace("cn: Alice Adams", "cn: Alice Abbot") +
                   directory.newcomer())
        os.kill(renewer, signal.SIGUSR1)
        daemon.wait_line("child_worker_start() load cache", pid=renewer)
        assert other.user_info("alice").userInfo.cn == "Alice Abbot"
        assert cache_lines(daemon, worker, "alice") == 0
        assert one.user_info("alice") == old
        assert one.user_info("newman").result == NO_SUCH
        assert cache_lines(daemon, worker, "alice") == cache_lines(daemon, worker, "newman") == 1
        assert one.user_info("ALICE").userInfo.uid == "alice"  # another key, hence no hit
        assert cache_lines(daemon, worker, "ALICE") == 0
        os.kill(worker, signal.SIGUSR1)
        daemon.wait_line("child_worker_start() load cache", pid=worker)
        assert one.user_info("alice").userInfo.cn == "Alice Abbot"
        assert one.user_info("newman").result == 0
        # A NUL does not make one user another one.
        assert one.user_info("newman\0").result == NO_SUCH
        assert one.user_info("newman").result == 0
    assert daemon.stop() == 0


def test_reply_cache__switched_off(daemon):
    daemon.start("--verbose", "--disable-reply-cache", files=directory.files())
    with daemon.connections_by_worker() as connections:
        for worker, connection in connections.items():
            daemon.wait_line("reply cache was disabled ...", level="INF", pid=worker)
            first = connection.user_info("alice")
            assert first.result == 0 and connection.user_info("alice") == first
            assert connection.bind("10.2.0.1", "CORP\\alice") == 0
            assert connection.query("10.2.0.1") == connection.query("10.2.0.1")
            # Everything is asked anew, and told that it could not be kept.
            assert daemon.count_lines("Error: fail to update reply cache", level="INF", pid=worker) >= 4
    assert daemon.count_lines("Debug: in reply cache (alice)") == 0
    assert daemon.stop() == 0


@pytest.mark.parametrize("user, password, right", [
    ("alice", PASSWORDS["alice"], True),
    ("CORP\\alice", PASSWORDS["alice"], True),
    ("alice.adams@corp.test", PASSWORDS["alice"], True),
    ("carol", PASSWORDS["carol"], True),
    ("dave", PASSWORDS["dave"], True),
    ("rat@lab.test", PASSWORDS["rat"], True),
    ("alice", PASSWORDS["alice"].upper(), False),
    ("alice", PASSWORDS["alice"] + " ", False),
    ("alice", PASSWORDS["alice"] + "\0", False),
    ("alice\0", PASSWORDS["alice"], False),
    ("alice", "", False),
    ("carol", "{CLEARTEXT}carol", False),
    ("alice", PASSWORDS["carol"], False),
    ("bob", PASSWORDS["bob"], False),  # disabled
    ("chad", "", False), ("chad", "chad", False),  # has none
    ("nobody", "x", False), ("", "", False),
    ("alice", "x" * 1_000_000, False),
])
def test_validate__proves_or_refuses(connection, user, password, right):
    assert connection.validate(user, password) == (0 if right else -1)
    assert connection.user_info("alice").result == 0  # and the connection goes on


def test_validate__no_password_reaches_the_log(served):
    secret = "hunter2-in-no-log"
    with wire.Connection() as connection:
        assert connection.validate("alice", secret) == -1
        assert connection.validate("nobody", secret) == -1
        connection.send(wire.frame(wire.VALIDATE, b"\x12\x11" + secret.encode()))  # and no user
        connection.expect_closed()
    assert "alice" in log_text()
    assert not any(password in log_text() for password in [secret, *PASSWORDS.values()] if password != "carol")


def test_slow_look_up__holds_up_nobody_else(daemon):
    """The one worker's first look-ups wait for another process that builds the snapshot."""
    daemon.start("--process-num", "1", files=directory.files(), workers=1)
    with (wire.Connection() as first, wire.Connection() as second, wire.Connection() as beside,
          open(f"{sandbox.WORKDIR}/directory.db.lock", "rb+") as lock):
        fcntl.flock(lock, fcntl.LOCK_EX)
        os.unlink(f"{sandbox.WORKDIR}/directory.db")
        first.send(wire.frame(wire.USER_INFO, UserInfoQueryRequest(user_ln="alice")))
        daemon.wait_line(re.compile("directory.db: No such file"), level="ERR")
        second.send(wire.frame(wire.VALIDATE, UserValidateRequest(user_ln="carol", password=PASSWORDS["carol"])))
        for _ in range(20):
            assert beside.query("10.9.9.9").result != 0
        assert not select.select([first.socket, second.socket], [], [], 0)[0]
        fcntl.flock(lock, fcntl.LOCK_UN)
        assert first.receive_answer(wire.USER_INFO).userInfo.cn == "Alice Adams"
        assert second.receive_answer(wire.VALIDATE).result == 0
    assert daemon.stop() == 0


def test_costly_password__holds_up_nobody_else(daemon):
    costly = ("{CRYPT}$6$rounds=1000000$seven$"
              "XCunNBl1MGtCPT3pejOBLv0qTxYB9w/bXPz9ZT1AYkbB3/NKn7RvH8kC3wcGk8nDQ/OcR/nglSWrKvl.0k7ru1")
    daemon.start("--process-num", "1", workers=1, files={"directory.ldif": directory.ldif() + directory.entry(
        directory.user_dn("Slow"), ("objectClass", "user"), ("cn", "Slow"), ("userPassword", costly))})
    with wire.Connection() as slow, wire.Connection() as beside:
        for _ in range(3):
            for _ in range(5):  # quick ones, after which the next is taken for quick as well
                assert beside.validate("carol", PASSWORDS["carol"]) == 0
            answered = 0
            slow.send(wire.frame(wire.VALIDATE, UserValidateRequest(user_ln="Slow", password="slow and right")))
            while not select.select([slow.socket], [], [], 0)[0]:
                assert beside.user_info("alice").result == 0
                answered += 1
            assert slow.receive_answer(wire.VALIDATE).result == 0
            assert answered > 10
    assert daemon.stop() == 0


def test_limit__search_stops_at_the_limit_and_says_so(daemon):
    daemon.start(files={"directory.ldif": directory.crowd(50),
                        "LdapSetting.ini": "[LDAP_Setting]\nSyncInterval=1440\nSearchLimit=20\n"})
    with wire.Connection() as connection:
        answer = connection.user_search("")
        assert answer.result == 4
        assert [user.uid for user in answer.userList] == [f"m{number:06}" for number in range(20)]
        assert connection.user_search("m00000").result == 0  # ten of them
    assert daemon.stop() == 0


def test_start__without_a_directory(daemon):
    daemon.start()
    with wire.Connection() as connection:
        assert (connection.user_search("").result, len(connection.user_search("").userList)) == (0, 0)
        assert connection.user_info("alice").result == NO_SUCH
        assert connection.validate("alice", PASSWORDS["alice"]) == -1
    write_file("directory.ldif", directory.ldif())
    with daemon.connections_by_worker() as connections:
        for worker, connection in connections.items():
            os.kill(worker, signal.SIGUSR1)
            daemon.wait_line(f"Handle single {int(signal.SIGUSR1)}, reload data...", pid=worker)
            until(lambda one=connection: one.user_info("alice").result == 0, "the new directory")
    assert daemon.stop() == 0


def test_names__of_settings_serve_as_domains(daemon):
    daemon.start(files=directory.files(**{"LdapSetting.ini": "[LDAP_Setting]\nSource=ldif\nSyncInterval=9\n"
                                          "[Domain_1]\nDnsName=corp.test\nNetbiosName=HEADQUARTERS\n"}))
    with wire.Connection() as connection:
        assert connection.user_info("headquarters\\alice").result == 0
        assert connection.user_info("CORP\\alice").result == NO_SUCH
        assert connection.user_info("LAB\\rat").result == 0
    assert daemon.stop() == 0


def test_requests__of_all_kinds_from_both_workers_at_once(served):
    """Answers never mix between the connections and threads of a worker."""
    failures = []

    def ask(uid):
        try:
            with wire.Connection() as connection:
                for _ in range(100):
                    assert connection.user_info(uid).userInfo.uid == uid
                    assert named(connection.ask(wire.USER_GROUPS, UserGroupQueryRequest(user_ln=uid)).groupList) \
                        == GROUPS_OF[uid]
        except BaseException as error:  # pylint: disable=broad-except
            failures.append(error)

    threads = [threading.Thread(target=ask, args=(uid,)) for uid in list(GROUPS_OF) * 3]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not failures, failures
