"""Synchronisation with OpenLDAP: trying the settings, reading everything, and never losing what there was."""

import contextlib
import os
import random
import re
import resource
import signal
import time
from pathlib import Path

import pytest

from harness import sandbox
from harness.daemon import program, until
from servers import people, workdir
from servers.process import run
from servers.relay import Relay
from servers.slapd import READER, READER_PASSWORD, Slapd
from servers.workdir import Questions

SHORT = {"ConnectTimeout": 1, "OperationTimeout": 1}
EVERYBODY = people.CROWD + len(people.NOTABLE)
MANY = int(os.environ.get("AUTHD_MANY_USERS", "10000"))


@pytest.fixture(scope="module")
def slapd():
    with Slapd(people.content()) as server:
        yield server


def settings(*servers, **more):
    return workdir.settings(servers, READER, **{"Schema": "rfc2307bis", **more})


def place(slapd, **more):
    workdir.place(settings(slapd.url, **more), READER_PASSWORD)


def place_with_snapshot(slapd, **more):
    place(slapd, **more)
    workdir.good_sync()
    return workdir.snapshot()


# case -> settings, what the output says of the stages, what is wrong. "server" makes another server first.
CHECKS = {
    "ldaps": ({"server": {}}, "connected yes.*TLS yes.*bound yes.*base found yes.*users found yes.*paging yes", ""),
    "StartTLS": ({"StartTLS": "yes"}, "TLS yes.*bound yes", ""),
    "wrong password": ({"password": "may not"}, "connected yes.*bound no", "reading account.*wrong user or password"),
    "unknown authority": ({"server": {"issuer": "unknown"}}, "connected yes.*TLS no.*bound no",
                          "is of no CA that .*ca.pem holds; issued by CN=Test Authority unknown"),
    "another's certificate": ({"server": {"names": "DNS:elsewhere.corp.test"}}, "TLS no",
                              "is not for the name 127.0.0.1 but for DNS:elsewhere"),
    "expired": ({"server": {"days": -1}}, "TLS no", "certificate has expired"),
    "no authority": ({"server": {}, "CACertFile": ""}, "TLS no", "the system trusts"),
    "no file of authorities": ({"server": {}, "CACertFile": "absent.pem"}, "bound no", "absent.pem"),
    "file without authorities": ({"server": {}, "CACertFile": "LdapSetting.ini"}, "TLS no", "no TLS"),
    "plain port": ({"servers": ["ldaps://127.0.0.1:3890"]}, "connected yes.*TLS no", "no TLS: "),
    "unknown host before a good one": ({"servers": ["ldap://nowhere.invalid", None]}, "resolved no.*connected no.*: works.*bound yes",
                                       "nowhere.invalid"),
    "wrong base": ({"base": "dc=elsewhere,dc=test"}, "bound yes.*base found no", "(?i)no such object|nothing there"),
    "silent": ({"stall_after": 0, **SHORT}, "connected yes.*bound no", "(?i)time"),
    "garbage": ({"garbage": b"HTTP/1.0 400 Bad Request\r\n\r\n"}, "connected yes.*bound no", "no directory server"),
    "wrong schema": ({"Schema": "ad"}, "base found yes.*users found no", "is Schema right"),
}


@pytest.mark.parametrize("case", CHECKS)
def test_check__says_per_server_what_works(slapd, case):
    change, stages, complaint = CHECKS[case]
    change = dict(change)
    password = change.pop("password", READER_PASSWORD)
    with contextlib.ExitStack() as stack:
        servers = [url or slapd.url for url in change.pop("servers", [None])]
        if "server" in change:
            servers = [stack.enter_context(Slapd(people.content([0]), **change.pop("server"))).tls_url]
        for trick in {"stall_after", "garbage"} & set(change):
            relay = stack.enter_context(Relay(slapd.port))
            setattr(relay, trick, change.pop(trick))
            servers = [relay.url]
        workdir.place(settings(*servers, **{"CACertFile": slapd.ca, **change}), password)
        before = sorted(os.listdir(sandbox.WORKDIR))
        done = workdir.ldap_sync("--check")
    assert done.status == (1 if complaint else 0), done
    assert re.search(stages, done.output, re.DOTALL) and servers[0] in done.output, done.output
    assert re.search(complaint, done.output) and ("FAILS" in done.output) == bool(complaint), done.output
    assert password not in done.output + done.errors
    assert sorted(os.listdir(sandbox.WORKDIR)) == before


def expect_everybody(ask):
    """More entries than a page and than the server gives at once; awkward names, the circle, three kinds of membership."""
    for uid, (cn, _) in people.NOTABLE.items():
        domain, *rest = ask.user(f"{uid}@corp.test")
        assert (domain, rest[0], rest[1]) == ("corp.test", uid, cn), uid
        assert ask.user(people.user_dn(uid)) == (domain, *rest), uid
    for uid, groups in people.GROUPS_OF.items():
        assert ask.groups_of(f"{uid}@corp.test") == sorted(groups, key=str.lower), uid
    assert ask.groups("") == people.ALL_GROUPS
    for cn in people.CIRCLE:
        assert ask.groups_in(cn) == [one for one in people.CIRCLE if one != cn]
        assert ask.members(cn) == {people.group_dn(cn): ["alice@corp.test", "bob@corp.test"]}
    assert ask.members(people.group_dn("everybody"), by_dn=1) == {
        people.group_dn("everybody"): [f"{people.crowd_uid(number)}@corp.test" for number in range(people.CROWD)]}
    assert ask.users("star*", 1) == ["star*"]
    assert ask.users("crowd c0000") == [people.crowd_uid(number) for number in range(10)]


def test_schedule__from_an_empty_folder_to_a_snapshot(daemon, slapd):
    """Without anybody's help or an installation. Before the first snapshot the answers are the server's, then nothing
    needs it."""
    place(slapd)
    workdir.place_script()
    before = int(time.time())
    daemon.start("--verbose", keep=True, factor=30)
    with Questions() as ask:
        expect_everybody(ask)
        daemon.wait_line(re.compile("LdapSyncTool.sh .*, return 0$"), level="INF")
        daemon.wait_line(re.compile("Directory: snapshot of the servers"), count=2)  # not: "no snapshot"
        with slapd.frozen():
            expect_everybody(ask)
    work = Path(sandbox.WORKDIR)
    assert before <= int((work / ".LastSyncTime.ini").read_text("ascii").partition("LastSyncTime=")[2]) <= time.time()
    [log] = work.glob("log/*")
    assert f"ldap_sync: {EVERYBODY} users, {len(people.ALL_GROUPS)} groups" in log.read_text("utf-8")
    assert daemon.stop() == 0


@pytest.mark.parametrize("as_root", [True, False], ids=["root", "account"])
def test_script__brings_changes_to_the_workers(daemon, slapd, as_root):
    """What an administrator did as root by hand before leaves nothing that the daemon's account cannot use."""
    place(slapd)
    workdir.good_sync(as_root=True)
    workdir.place_script()
    os.chown(f"{sandbox.WORKDIR}/LdapSetting.ini", 0, sandbox.SECOND_GROUP_ID)  # by which the account may read it
    daemon.start(keep=True)
    slapd.change(people.crowd([7777]))
    try:
        with Questions() as ask:  # a newcomer is asked of the server, which searches are not
            assert (ask.user("c07777")[1], ask.users("c07777")) == ("c07777", [])
        done = workdir.run_script("verbose", as_root=as_root)
        assert (done.returncode, done.stderr) == (0, ""), done
        assert os.stat(workdir.SNAPSHOT).st_uid == sandbox.ACCOUNT_ID
        assert READER_PASSWORD not in done.stdout
        with daemon.connections_by_worker() as connections:
            for worker, connection in connections.items():
                until(lambda ask=connection: ask.user_search("c07777").userList, f"worker {worker} to use the new snapshot")
    finally:
        slapd.remove(people.user_dn("c07777"))


def test_terminal__shows_how_far_it_is(slapd):
    """A bar that is gone at the end."""
    place_with_snapshot(slapd)
    shown = run("script", "-qec", f"{program('ldap_sync')} --workdir {sandbox.WORKDIR}", "/dev/null")
    assert re.search(r"\[#*\.*\] \d+ entries, reading corp.test.*\n\x1b\[Kldap_sync: \d+ users", shown, re.DOTALL), shown


def test_many_users__in_reasonable_time_and_memory():
    """Generous: a fault of the order of growth shows with AUTHD_MANY_USERS=100000, a busy machine does not."""
    with Slapd(people.content(range(MANY))) as slapd:
        place(slapd, OperationTimeout=10)
        most = workdir.limit(resource.RLIMIT_DATA, (20 << 20) + 2000 * MANY)
        begin = time.monotonic()
        workdir.good_sync(**({} if workdir.sanitized("ldap_sync") else most))
        assert time.monotonic() - begin < 20 + MANY / 1000
    assert workdir.stored_users() == MANY + len(people.NOTABLE)


# What must never cost the snapshot.

def test_shrunk__the_old_snapshot_stays_until_forced():
    with Slapd(people.content()) as slapd:
        old = place_with_snapshot(slapd)
        slapd.refill(people.content(groups=False))
        workdir.refused_sync("0 groups", "--force")
        slapd.refill("")
        workdir.refused_sync("no users at all", "--force")
        assert workdir.snapshot() == old
        assert "0 users" in workdir.good_sync("--force")


@pytest.mark.parametrize("trick, words, share", [("cut_after", "127.0.0.1", 0.1), ("cut_after", "127.0.0.1", 0.95),
                                                 ("stall_after", "(?i)time", 0.95)])
def test_half_way__the_old_snapshot_stays(slapd, trick, words, share):
    with Relay(slapd.port) as relay:
        old = place_with_snapshot(relay, **SHORT)
        setattr(relay, trick, int(relay.answered * share))
        workdir.refused_sync(words)
        assert workdir.snapshot() == old
        # The same with a server in reserve: begun anew there, nobody twice.
        workdir.put(settings(relay.url, slapd.url, **SHORT), READER_PASSWORD)
        done = workdir.ldap_sync()
        assert done.status == 0 and f"{EVERYBODY} users" in done.output, done


def test_killed__at_any_moment():
    """The directory grows by one before each run, so a whole new snapshot can be told from the old one."""
    with Slapd(people.content()) as slapd:
        place(slapd)
        begin = time.monotonic()
        workdir.good_sync()
        usual, killed, stored = time.monotonic() - begin, 0, workdir.stored_users()
        for number in range(10):
            slapd.change(people.crowd([5000 + number]))
            moment = random.uniform(0, usual * 1.1)
            process = workdir.start_sync()
            time.sleep(moment)  # what is under test is the moment
            os.kill(process.pid, signal.SIGKILL)
            done = workdir.finish(process)
            assert done.status in (0, -signal.SIGKILL), (number, moment, done)
            present = EVERYBODY + number + 1
            allowed = [stored, present]
            if done.status == 0:  # it takes less time than it did on a machine that was busy
                usual, allowed = min(usual, moment), [present]
            killed += done.status != 0
            stored = workdir.stored_users()
            assert stored in allowed, (number, moment, done)
        assert killed > 0
        workdir.good_sync()
        assert (workdir.stored_users(), workdir.leftovers()) == (present, [])


def test_disk_full__the_old_snapshot_stays(slapd):
    old = place_with_snapshot(slapd)
    done = workdir.ldap_sync(**workdir.limit(resource.RLIMIT_FSIZE, 100_000))
    assert done.status in (1, -signal.SIGXFSZ), done
    assert workdir.snapshot() == old
    workdir.good_sync()
    assert workdir.leftovers() == []


def test_several_at_once__take_turns(slapd):
    place(slapd)
    for process in [workdir.start_sync() for _ in range(3)]:
        done = workdir.finish(process)
        assert (done.status, done.errors) == (0, ""), done
    assert workdir.leftovers() == []
