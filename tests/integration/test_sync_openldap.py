"""Synchronisation with OpenLDAP: trying the settings, reading everything, and never losing what there was."""

import contextlib
import os
import pty
import random
import re
import signal
import subprocess
import time

import pytest

from harness import sandbox
from harness.daemon import program, until
from servers import people, workdir
from servers.process import Stopwatch
from servers.ranged import RangedServer
from servers.relay import Relay
from servers.slapd import PEOPLE, READER, READER_PASSWORD, SUFFIX, Slapd
from servers.workdir import Questions

SHORT = {"ConnectTimeout": 1, "OperationTimeout": 1}


@pytest.fixture(scope="module")
def slapd():
    with Slapd(people.content()) as server:
        yield server


def settings(slapd, servers=None, **more):
    more.setdefault("Schema", "rfc2307bis")
    return workdir.settings(servers or [slapd.url], READER, **more)


def place(slapd, **more):
    workdir.place(settings(slapd, **more), READER_PASSWORD)


def place_with_snapshot(slapd, **more):
    place(slapd, **more)
    workdir.good_sync()
    return workdir.snapshot()


# Trying the settings.

@pytest.fixture(scope="module")
def elsewhere():
    """A server whose certificate is good, but another one's."""
    with Slapd("", names="DNS:elsewhere.corp.test") as server:
        yield server


@pytest.fixture(scope="module")
def stranger():
    """A server with a certificate of an authority that is not the configured one."""
    with Slapd("", authority_name="unknown") as server:
        yield server


@pytest.fixture(scope="module")
def expired():
    with Slapd("", days=-1) as server:
        yield server


GOOD = {"connected": "yes", "bound": "yes", "base found": "yes", "users found": "yes", "paging": "yes"}
CHECKS = {
    "ldap": ({}, GOOD, ""),
    "ldaps": ({"servers": "tls"}, {**GOOD, "TLS": "yes"}, ""),
    "StartTLS": ({"StartTLS": "yes"}, {**GOOD, "TLS": "yes"}, ""),
    "wrong password": ({"password": "may not"}, {"connected": "yes", "bound": "no"}, "reading account.*wrong user or password"),
    "unknown reader": ({"BindDN": f"cn=nobody,{SUFFIX}"}, {"connected": "yes", "bound": "no"}, "(?i)reading account"),
    "readable password": ({"mode": 0o640}, {"connected": "yes", "bound": "no"}, r"BindPasswordFile.*chmod 600"),
    "no password file": ({"BindPasswordFile": "absent"}, {"bound": "no"}, r"BindPasswordFile .*absent: No such file"),
    "empty password file": ({"password": ""}, {"bound": "no"}, "BindPasswordFile .*empty"),
    "unknown authority": ({"servers": "stranger"}, {"connected": "yes", "TLS": "no", "bound": "no"},
                          "is of no CA that .*ca.pem holds; issued by CN=Test Authority unknown"),
    "another's certificate": ({"servers": "elsewhere"}, {"connected": "yes", "TLS": "no", "bound": "no"},
                              "is not for the name 127.0.0.1 but for DNS:elsewhere"),
    "another's, StartTLS": ({"servers": "elsewhere plain", "StartTLS": "yes"}, {"TLS": "no", "bound": "no"},
                            "is not for the name 127.0.0.1"),
    "expired": ({"servers": "expired"}, {"connected": "yes", "TLS": "no", "bound": "no"}, "certificate has expired"),
    "no authority file": ({"servers": "tls", "CACertFile": "absent.pem"}, {"bound": "no"}, "absent.pem"),
    "closed port": ({"servers": "ldap://127.0.0.1:9"}, {"resolved": "yes", "connected": "no"}, "(?i)refused"),
    "unknown host": ({"servers": "ldap://nowhere.invalid"}, {"resolved": "no", "connected": "no"}, "nowhere.invalid"),
    "wrong base": ({"base": "dc=elsewhere,dc=test"}, {"bound": "yes", "base found": "no"}, "(?i)no such object|nothing there"),
    "silent": ({"servers": "silent", **SHORT}, {"connected": "yes", "bound": "no"}, "(?i)time"),
    "garbage": ({"servers": "garbage"}, {"connected": "yes", "bound": "no"}, "no directory server"),
    "wrong schema": ({"Schema": "ad"}, {"base found": "yes", "users found": "no"}, "is Schema right"),
}


@pytest.mark.parametrize("case", CHECKS)
def test_check__says_per_server_what_works(slapd, elsewhere, stranger, expired, case):
    change, stages, complaint = CHECKS[case]
    change = dict(change)
    password, mode = change.pop("password", READER_PASSWORD), change.pop("mode", 0o600)
    with Relay(slapd.port) as relay:
        relay.stall_after = 0 if case == "silent" else None
        relay.garbage = b"HTTP/1.0 400 Bad Request\r\n\r\n" if case == "garbage" else None
        wanted = change.pop("servers", slapd.url)
        server = {"tls": slapd.tls_url, "stranger": stranger.tls_url, "expired": expired.tls_url, "elsewhere": elsewhere.tls_url,
                  "elsewhere plain": elsewhere.url, "silent": relay.url, "garbage": relay.url}.get(wanted, wanted)
        workdir.place(settings(slapd, [server], **{"CACertFile": slapd.ca, **change}), password, mode)
        before = sorted(os.listdir(sandbox.WORKDIR))
        watch = Stopwatch()
        done = workdir.ldap_sync("--check")
    assert done.status == (1 if complaint else 0), done
    for stage, answer in stages.items():
        assert re.search(rf"\b{stage} {answer}\b", done.output), (stage, done.output)
    assert server in done.output and re.search(complaint, done.output), done.output
    assert ("FAILS" in done.output) == bool(complaint)
    assert not password or password not in done.output + done.errors
    assert sorted(os.listdir(sandbox.WORKDIR)) == before
    assert watch.seconds() < 8


def test_check__every_server_is_tried(slapd):
    place(slapd, servers=["ldap://127.0.0.1:9", slapd.url])
    done = workdir.ldap_sync("--check")
    assert done.status == 1
    assert (done.output.count("FAILS"), done.output.count(": works")) == (1, 1), done.output


# What a synchronisation brings.

def expect_everybody(ask):
    for uid, (cn, _) in people.NOTABLE.items():
        dn = people.user_dn(uid)
        domain, *rest = ask.user(f"{uid}@corp.test")
        assert (domain, rest[0], rest[1]) == ("corp.test", uid, cn), uid
        assert ask.user(dn) == (domain, *rest), dn
    for uid, groups in people.GROUPS_OF.items():
        assert ask.groups_of(f"{uid}@corp.test") == sorted(groups, key=str.lower), uid
    assert ask.groups("") == sorted(people.GROUP_CLASSES, key=str.lower)
    for cn in people.CIRCLE:
        assert ask.groups_in(cn) == [one for one in people.CIRCLE if one != cn]
        assert sorted(ask.members(cn)[people.group_dn(cn)]) == ["alice@corp.test", "bob@corp.test"]
    everybody = ask.members(people.group_dn("everybody"), by_dn=1)[people.group_dn("everybody")]
    assert sorted(everybody) == [f"{people.crowd_uid(number)}@corp.test" for number in range(people.CROWD)]
    assert ask.users("star*", 1) == ["star*"]


def test_first_sync__brings_everything(daemon, slapd):
    """More entries than a page and than the server gives at once; awkward names, the circle, three kinds of
    membership."""
    place(slapd)
    done = workdir.good_sync()
    assert re.search(rf"{people.CROWD + len(people.NOTABLE)} users, {len(people.GROUP_CLASSES)} groups", done.output)
    daemon.start(keep=True)
    with Questions() as ask, slapd.frozen():  # nothing of this needs the server
        expect_everybody(ask)
        assert len(ask.users("")) == people.CROWD + len(people.NOTABLE)
        assert ask.users("crowd c0000") == [people.crowd_uid(number) for number in range(10)]
    told = subprocess.run([program("authctl"), "user-groups", "alice@corp.test"], capture_output=True, text=True, check=True)
    assert [line.split("  ")[0] for line in told.stdout.splitlines()[1:]] == people.GROUPS_OF["alice"]
    assert daemon.stop() == 0


def test_live__answers_are_those_of_the_snapshot(daemon, slapd):
    """Before the first snapshot every question goes to the server. A table of them, asked before and after."""
    place(slapd)
    daemon.start("--verbose", keep=True)

    def answers():
        with Questions() as ask:
            expect_everybody(ask)
            return {
                **{("user", name): ask.user(name) for name in [
                    "alice", "ALICE", "CORP\\alice", "corp.test\\alice", "WRONG\\alice", "alice@other.test", "", "*",
                    "ali*", "alice)(uid=*", people.user_dn("jm\u00fcller").upper(), f"CN=Alice Adams , {PEOPLE}", SUFFIX,
                    READER]},
                **{("users", name, whole): ask.users(name, whole) for name in ["star", "*", "(", "adams", "\\", "c00017"]
                   for whole in (0, 1)},
                **{("groups", name, whole): ask.groups(name, whole) for name in ["R&D", "ENGINEERS", "*", "(k\u00f6ln)", ","]
                   for whole in (0, 1)},
                **{("in", name, whole): ask.groups_in(name, whole) for name in ["staff", "STAFF", "*", "nobody", "d", "board"]
                   for whole in (0, 1)},
                ("members", "by dn"): ask.members(people.group_dn("board"), people.group_dn("R&D (K\u00f6ln), \\Lab*"),
                                                  f"cn=nobody,{SUFFIX}", by_dn=1),
                ("members", "by cn"): ask.members("docker", "nobody", "STAFF"),
                ("members", "of nobody"): ask.members("*", "nobody"),
            }

    workdir.expect_live_as_stored(daemon, answers)


def test_unknown_name__is_asked_of_the_server(daemon, slapd):
    """Somebody who came after the synchronisation is served at once; what no server knows is not asked twice."""
    place_with_snapshot(slapd)
    daemon.start("--process-num", "1", keep=True, workers=1)
    with Questions() as ask:
        assert ask.user("c09999") == 32 and ask.user("star?@corp.test") == 32
        searches = slapd.searches()
        assert ask.user("c09999") == 32
        assert ask.user("alice")[1] == "alice"
        assert slapd.searches() == searches
        slapd.change(people.crowd([8888]))
        try:
            assert ask.user("c08888")[1:3] == ("c08888", "Crowd c08888")
            assert ask.validate("c08888", "pw c08888") is True
            assert ask.users("c08888") == []  # searches are the snapshot's
        finally:
            slapd.change(f"dn: {people.user_dn('c08888')}\nchangetype: delete\n")


LAB = "DC=lab,DC=test"
LAB_ALICE = f"CN=Alice of the Lab,{LAB}"


def test_two_domains__all_or_nothing(daemon, slapd):
    """The same uid in both; what one domain has is never published without the other."""
    entries = {LAB: {"objectClass": ["top", "domain"]},
               LAB_ALICE: {"objectClass": ["top", "user"], "cn": ["Alice of the Lab"], "sAMAccountName": ["alice"],
                           "password": ["in the lab"]},
               f"CN=Lab Rats,{LAB}": {"objectClass": ["group"], "cn": ["Lab Rats"],
                                      "member": [LAB_ALICE, people.user_dn("bob")]}}
    with RangedServer(LAB, entries, (f"CN=reader,{LAB}", READER_PASSWORD)) as lab:
        text = settings(slapd) + "\n".join(["[Domain_2]", "DnsName=lab.test", f"Servers={lab.url}", f"BindDN=CN=reader,{LAB}",
                                            f"BindPasswordFile={workdir.PASSWORD_FILE}", "OperationTimeout=1", ""])
        workdir.place(text, READER_PASSWORD)
        workdir.good_sync()
        old = workdir.snapshot()
        daemon.start("--disable-reply-cache", keep=True)
        with Questions() as ask:
            assert ask.user("alice") == 32
            assert ask.user("LAB\\alice")[0] == ask.user("alice@lab.test")[0] == "lab.test"
            assert ask.user("CORP\\alice")[0] == "corp.test"
            assert ask.groups_of("bob") == sorted([*people.GROUPS_OF["bob"], "Lab Rats"], key=str.lower)
            assert ask.validate("LAB\\alice", "in the lab") is True and ask.validate("CORP\\alice", "in the lab") is False
            assert ask.validate("alice@corp.test", "correct horse") is True and ask.validate("alice", "in the lab") is False
            lab.close()
            one_line(workdir.ldap_sync(), lab.url)
            assert workdir.snapshot() == old
            assert ask.validate("LAB\\alice", "in the lab") is False
            assert ask.validate("CORP\\alice", "correct horse") is True
            assert ask.user("LAB\\alice")[2] == "Alice of the Lab"


@pytest.mark.parametrize("synchronised", [True, False], ids=["snapshot", "live"])
def test_tree_without_dc__has_the_domain_of_its_section(daemon, synchronised):
    """Beside it a part of the same tree as a domain of its own, so that entries come twice."""
    alice = "CN=Alice,OU=Rats,O=Lab"
    entries = {"O=Lab": {"objectClass": ["top", "organization"]}, "OU=Rats,O=Lab": {"objectClass": ["organizationalUnit"]},
               "OU=Empty,O=Lab": {"objectClass": ["organizationalUnit"]},
               "CN=Bob,O=Lab": {"objectClass": ["user"], "cn": ["Bob"], "sAMAccountName": ["bob"]},
               alice: {"objectClass": ["top", "user"], "cn": ["Alice"], "sAMAccountName": ["alice"], "password": ["in the lab"]},
               "CN=Unix Rats,OU=Rats,O=Lab": {"objectClass": ["group"], "cn": ["Unix Rats"], "memberUid": ["alice"]}}
    with RangedServer("O=Lab", entries, ("CN=reader,O=Lab", READER_PASSWORD)) as lab:
        text = workdir.settings([lab.url], "CN=reader,O=Lab", base="O=Lab")
        rats = text[text.index("[Domain_1]"):].replace("1]", "2]").replace("corp.test", "rats.test").replace("BaseDN=O=", "BaseDN=OU=Rats,O=")
        workdir.place(text + rats, READER_PASSWORD)
        if synchronised:
            workdir.good_sync()
        daemon.start("--disable-reply-cache", keep=True)
        with Questions() as ask:
            for name in ("alice", "RATS\\alice", "alice@rats.test", alice):
                assert ask.user(name)[:2] == ("rats.test", "alice"), name
                assert ask.validate(name, "in the lab") is True, name
            assert ask.user("CORP\\bob")[0] == "corp.test" and ask.user("CORP\\alice") == 32
            assert ask.groups_of("alice") == ["Unix Rats"]
            assert list(ask.members("Unix Rats").values()) == [["alice@rats.test"]]
        if synchronised:  # a domain that has become empty is lost in the crowd of the others
            workdir.put(text + rats.replace("OU=Rats", "OU=Empty"), READER_PASSWORD)
            one_line(workdir.ldap_sync(), "domain rats.test: the servers gave no users at all")


def test_terminal__shows_how_far_it_is(slapd):
    """A bar that ends with the run; nothing of it where nobody looks."""
    place_with_snapshot(slapd)
    own, other = pty.openpty()
    process = workdir.start_sync(stderr=other)
    os.close(other)
    shown = b""
    with contextlib.suppress(OSError):  # the end of the terminal
        while piece := os.read(own, 65536):
            shown += piece
    os.close(own)
    assert process.wait(10) == 0 and len(process.stdout.read().splitlines()) == 1
    assert re.search(rb"\[#*\.*\] \d+ entries, reading corp.test", shown), shown
    assert shown.endswith(b"\r\x1b[K"), shown
    process.stdout.close()


# Reload and schedule.

@pytest.mark.parametrize("as_root", [True, False], ids=["root", "account"])
def test_script__brings_changes_to_the_workers(daemon, slapd, as_root):
    place_with_snapshot(slapd)
    workdir.place_script()
    daemon.start(keep=True)
    slapd.change(people.crowd([7777]))
    try:
        done = workdir.run_script("verbose", as_root=as_root)
        assert (done.returncode, done.stderr) == (0, ""), done
        assert os.stat(workdir.SNAPSHOT).st_uid == sandbox.ACCOUNT_ID
        assert READER_PASSWORD not in done.stdout
        with daemon.connections_by_worker() as connections:
            for worker, connection in connections.items():
                until(lambda ask=connection: [one.uid for one in ask.user_search("c07777").userList] == ["c07777"],
                      f"worker {worker} to use the new snapshot")
    finally:
        slapd.change(f"dn: {people.user_dn('c07777')}\nchangetype: delete\n")


def test_schedule__the_daemon_synchronises_by_itself(daemon, slapd, monkeypatch):
    """From an empty folder to a snapshot without anybody's help."""
    monkeypatch.setenv("AUTH_PROGRAM_DIR", os.environ["AUTHD_PROGRAMS"])
    place(slapd)
    workdir.place_script()
    before = int(time.time())
    daemon.start("--verbose", keep=True, factor=60)
    with Questions() as ask:
        assert ask.groups_of("bob") == people.GROUPS_OF["bob"]  # live
        daemon.wait_line(re.compile("LdapSyncTool.sh .*, return 0$"), level="INF")
        daemon.wait_line(re.compile("Directory: snapshot of the servers"), count=2)  # not: "no snapshot"
        watch = Stopwatch()
        expect_everybody(ask)
        usual = watch.seconds()
        with slapd.frozen():
            expect_everybody(ask)
            assert watch.seconds() < 4 * usual + 1.5  # the time-out of a single question would be 2 s more
    with open(f"{sandbox.WORKDIR}/.LastSyncTime.ini", encoding="ascii") as file:
        assert before <= int(file.read().partition("LastSyncTime=")[2]) <= time.time()
    [log] = os.listdir(f"{sandbox.WORKDIR}/log")
    with open(f"{sandbox.WORKDIR}/log/{log}", encoding="utf-8") as file:
        assert re.search(rf"ldap_sync: {people.CROWD + len(people.NOTABLE)} users", file.read())
    assert daemon.stop() == 0


# What must never cost the snapshot.

def one_line(done, *words):
    assert done.status == 1 and done.output == "", done
    assert len(done.errors.splitlines()) == 1, done
    for word in words:
        assert re.search(word, done.errors), (word, done.errors)


SHRUNK = {
    "empty": ({"crowd_numbers": [], "groups": False, "nobody": True}, "no users at all"),
    "half the users": ({"crowd_numbers": range(people.CROWD // 2)}, "users"),
    "no groups": ({"groups": False}, "0 groups"),
}


def test_shrunk__the_old_snapshot_stays_until_forced(daemon):
    with Slapd(people.content()) as slapd:
        old = place_with_snapshot(slapd)
        daemon.start(keep=True)
        for case, (what, words) in SHRUNK.items():
            what = dict(what)
            slapd.refill("" if what.pop("nobody", False) else people.content(**what))
            one_line(workdir.ldap_sync(), words, "--force")
            assert (workdir.snapshot(), workdir.leftovers()) == (old, []), case
        with Questions() as ask:
            assert ask.user("c01099")[1] == "c01099"
        # A loss within the guard, and one that was meant.
        slapd.refill(people.content(range(people.CROWD * 9 // 10)))
        assert "998 users" in workdir.good_sync().output
        slapd.refill("")
        assert "0 users" in workdir.good_sync("--force").output


@pytest.mark.parametrize("trick, words", [
    ("cut_after", "127.0.0.1"),
    ("stall_after", "(?i)time"),
], ids=["dies", "falls silent"])
@pytest.mark.parametrize("share", [0.1, 0.95])
def test_half_way__the_old_snapshot_stays(slapd, trick, words, share):
    old = place_with_snapshot(slapd, **SHORT)
    with Relay(slapd.port) as relay:
        workdir.put(settings(slapd, [relay.url], **SHORT), READER_PASSWORD)
        workdir.good_sync()
        old, size = workdir.snapshot(), relay.answered
        setattr(relay, trick, int(size * share))
        one_line(workdir.ldap_sync(), words)
        assert (workdir.snapshot(), workdir.leftovers()) == (old, [])
        # The same with a server in reserve: begun anew there, nobody twice.
        workdir.put(settings(slapd, [relay.url, slapd.url], **SHORT), READER_PASSWORD)
        done = workdir.ldap_sync()
        assert done.status == 0 and f"{people.CROWD + len(people.NOTABLE)} users" in done.output, done


def test_killed__at_any_moment(daemon):
    """The directory grows by one before each run, so a whole new snapshot can be told from the old one."""
    with Slapd(people.content()) as slapd:
        place_with_snapshot(slapd)
        daemon.start(keep=True)
        usual = workdir.good_sync().seconds
        moments = random.Random()
        killed, present, stored = 0, people.CROWD + len(people.NOTABLE), workdir.stored_users()
        for number in range(12):
            slapd.change(people.crowd([5000 + number]))
            present += 1
            moment = moments.uniform(0, usual * 1.1)
            process = workdir.start_sync()
            time.sleep(moment)  # what is under test is the moment
            os.kill(process.pid, signal.SIGKILL)
            done = workdir.finish(process)
            assert done.status in (0, -signal.SIGKILL), (number, moment, done)
            allowed = [present] if done.status == 0 else [stored, present]
            killed += done.status != 0
            stored = workdir.stored_users()
            assert stored in allowed, (number, moment, done)
            with Questions() as ask:
                assert ask.user("c01099")[1] == "c01099"
        assert killed > 0
        workdir.good_sync()
        assert (workdir.stored_users(), workdir.leftovers()) == (present, [])


def test_disk_full__the_old_snapshot_stays(slapd):
    old = place_with_snapshot(slapd)
    done = workdir.ldap_sync(preexec_fn=workdir.limit_file_size(100_000))
    assert done.status in (1, -25), done
    assert workdir.snapshot() == old
    workdir.good_sync()
    assert workdir.leftovers() == []


def test_two_at_once__take_turns(slapd):
    place(slapd)
    both = [workdir.start_sync() for _ in range(3)]
    for process in both:
        done = workdir.finish(process)
        assert (done.status, done.errors) == (0, ""), done
    assert workdir.leftovers() == []


def test_root_by_hand__does_not_lock_the_account_out(daemon, slapd):
    """An administrator who runs ldap_sync as root leaves nothing that the daemon's account cannot use."""
    place(slapd)
    workdir.good_sync(as_root=True)
    daemon.start("--verbose", keep=True)
    with Questions() as ask, slapd.frozen():
        assert ask.groups_of("bob") == people.GROUPS_OF["bob"]
    workdir.good_sync()
