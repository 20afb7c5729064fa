"""A domain controller, real in all but its maker: synchronisation, nested and primary groups, big groups, accounts,
names; and the ranges in which big groups arrive elsewhere."""

import contextlib
import itertools
import operator
import re
import subprocess

import pytest

from harness.daemon import log_text, program
from servers import workdir
from servers.ranged import MOST_VALUES, RangedServer
from servers.relay import Relay
from servers.samba_ad import (CROWD, FIRST_PART, LOCKED_AFTER, PEOPLE, PEOPLE_OF_NOTE, READER, READER_PASSWORD, SUFFIX, USERS,
                              SambaDomain, group_dn, user_dn)
from servers.workdir import Questions

CIRCLE = ["Inner", "Middle", "Outer"]
GROUPS_OF = {
    "alice": ["Domain Users", *CIRCLE, "Users"],
    "jm\u00fcller": ["Domain Users", *CIRCLE, "Users"],
    "paren(1)": ["Domain Users", *CIRCLE, "Users"],
    "back": ["Domain Users", "R&D (K\u00f6ln), \\Lab*", "Users"],
    "star": ["Domain Users", "R&D (K\u00f6ln), \\Lab*", "Users"],
    "pia": ["Domain Users", "Primary Crew", "Users"],
    "m01501": ["Crowd 1501", "Crowd 5001", "Domain Users", "Users"],
    "m01502": ["Crowd 5001", "Domain Users", "Users"],
}


@pytest.fixture(scope="module")
def domain():
    with SambaDomain() as controller:
        yield controller


def place(domain, servers=None, reader=READER, password=READER_PASSWORD, **more):
    more = {"CACertFile": "ca.pem", "OperationTimeout": 5, **more}
    with open(domain.ca, "rb") as file:
        workdir.place(workdir.settings(servers or [domain.tls_url], reader, **more), password, **{"ca.pem": file.read()})


@pytest.mark.parametrize("change, complaint", [
    ({}, None),
    ({"servers": ["ldap://dc1.corp.test"], "StartTLS": "yes"}, None),
    ({"reader": "svc-read@corp.test"}, None),
    ({"reader": "CORP\\svc-read"}, None),
    ({"servers": ["ldap://dc1.corp.test"]}, "(?i)stronger|encrypt|TLS"),
    ({"servers": ["ldaps://10.99.0.1"]}, "(?i)certificate|name"),
    ({"reader": f"CN=nobody,{USERS}"}, "(?i)reading account"),
    ({"reader": user_dn("gone"), "password": PEOPLE_OF_NOTE["gone"][1]}, "(?i)reading account.*disabled"),
    ({"base": "DC=other,DC=test"}, "(?i)referral|no such object|nothing there"),
], ids=["ldaps", "StartTLS", "principal", "DOMAIN\\uid", "unencrypted", "by address", "unknown", "disabled", "base"])
def test_check__says_what_works(domain, change, complaint):
    place(domain, **change)
    done = workdir.ldap_sync("--check")
    assert done.status == (0 if complaint is None else 1), done
    assert re.search(complaint or ": works", done.output), done
    assert READER_PASSWORD not in done.output + done.errors


# What a synchronisation brings.

def address(uid):
    return f"{uid}@corp.test"


def expect_everybody(ask, spelled=lambda forms: forms):
    """`spelled` chooses among the forms of a name."""
    for uid, (cn, _) in PEOPLE_OF_NOTE.items():
        forms = [address(uid), f"CORP\\{uid}", f"corp.test\\{uid.upper()}", uid, user_dn(uid).lower()]
        for name in spelled(forms):
            assert ask.user(name)[:4] == ("corp.test", uid, cn, user_dn(uid)), name
    for uid, groups in GROUPS_OF.items():
        assert ask.groups_of(address(uid)) == sorted(groups, key=str.lower), uid
    for cn in CIRCLE:
        assert ask.groups_in(cn) == [one for one in CIRCLE if one != cn]
        members = ask.members(group_dn(cn), by_dn=1)[group_dn(cn)]
        assert sorted(members) == sorted(map(address, ["alice", "jm\u00fcller", "paren(1)"])), cn
    # Primary groups have no "member" for their users.
    assert ask.members("Primary Crew") == {group_dn("Primary Crew"): [address("pia")]}
    assert ask.user("DC1$") == 32 and ask.user("M\u00fcller*") == 32


def expect_crowds(ask):
    everybody = [address(f"m{number:05}") for number in range(1, CROWD + 1)]
    for cn, count in (("Crowd 1501", FIRST_PART), ("Crowd 5001", CROWD)):
        assert sorted(ask.members(cn)[group_dn(cn)]) == everybody[:count]
    [(_, users)] = ask.members("Domain Users").items()
    assert set(everybody) <= set(users) and address("pia") in users and address("dc1$") not in users


def test_first_sync__brings_everything(daemon, domain):
    place(domain)
    done = workdir.good_sync()
    assert int(re.search(r"(\d+) users", done.output)[1]) >= CROWD + len(PEOPLE_OF_NOTE)
    daemon.start(keep=True)
    with domain.frozen(), Questions() as ask:  # nothing of this needs the server
        expect_everybody(ask)
        expect_crowds(ask)
        assert ask.user("alice")[4] == "alice@corp.test"
        assert ask.users("Member 0500") == ["m05000", "m05001"]
        assert "DC1$" not in ask.users("")
    told = subprocess.run([program("authctl"), "user-groups", "pia@corp.test"], capture_output=True, text=True, check=True)
    assert [line.split("  ")[0] for line in told.stdout.splitlines()[1:]] == GROUPS_OF["pia"]
    assert daemon.stop() == 0


def test_live__answers_are_those_of_the_snapshot(daemon, domain):
    place(domain)
    daemon.start("--verbose", keep=True)

    turn = itertools.cycle(operator.itemgetter(number) for number in range(5))

    def answers():
        with Questions(timeout=60) as ask:
            expect_everybody(ask, lambda forms: [next(turn)(forms)])
            expect_crowds(ask)
            return {
                **{("user", name): ask.user(name) for name in [
                    "ALICE@corp.test", "WRONG\\alice", "alice@other.test", "*", "paren*", "CN=Users", PEOPLE, USERS,
                    "administrator", "guest", READER, f"CN=DC1,OU=Domain Controllers,{SUFFIX}"]},
                **{("users", name, whole): ask.users(name, whole)
                   for name in ["Star*", "paren", "corp.test", "m0500", "\\"] for whole in (0, 1)},
                **{("groups", name, whole): ask.groups(name, whole) for name in ["R&D", "crowd", "*", "Domain Users"]
                   for whole in (0, 1)},
                **{("groups of", name): ask.groups_of(name) for name in ["Administrator", "krbtgt", "gone", READER]},
                **{("in", name, whole): ask.groups_in(name, whole) for name in ["Administrators", "Users", "inner", "crowd"]
                   for whole in (0, 1)},
                ("members", "builtin"): {dn: sorted(users) for dn, users in ask.members("Administrators", "Guests").items()},
            }

    workdir.expect_live_as_stored(daemon, answers)


# Passwords.

def verdicts(uid):
    text = re.compile(rf"password of user {re.escape(uid)} refused: (.*) @<")
    return [match[1] for match in map(text.search, log_text().splitlines()) if match]


@pytest.mark.parametrize("synchronised", [True, False], ids=["snapshot", "live"])
def test_validate__right_and_wrong(daemon, domain, synchronised):
    place(domain)
    if synchronised:
        workdir.good_sync()
    daemon.start("--process-num", "1", keep=True, workers=1)
    with Questions() as ask:
        for uid in ("alice", "jm\u00fcller", "back", "paren(1)", "star"):
            password = PEOPLE_OF_NOTE[uid][1]
            names = [f"CORP\\{uid}", address(uid), user_dn(uid), uid]
            assert [ask.validate(name, password) for name in names] == [True] * 4, uid
            assert ask.validate(uid, password.upper()) is False and ask.validate(uid, "") is False
            assert domain.wrong_passwords(user_dn(uid)) == 1, uid
        # The same wrong one from a client that repeats itself, and the corrected one.
        for _ in range(10):
            assert ask.validate("alice", "last month's") is False
        assert domain.wrong_passwords(user_dn("alice")) == 2
        assert ask.validate("alice", PEOPLE_OF_NOTE["alice"][1]) is True
        assert domain.wrong_passwords(user_dn("alice")) == 0


def test_validate__disabled_and_locked_are_told_apart_from_wrong(daemon, domain):
    place(domain)
    workdir.good_sync()
    daemon.start("--verbose", "--process-num", "1", keep=True, workers=1)
    with Questions() as ask:
        assert ask.validate("gone", PEOPLE_OF_NOTE["gone"][1]) is False
        assert verdicts("gone")[-1].startswith("disabled"), verdicts("gone")
        domain.tool("user", "enable", "gone")
        try:
            assert ask.validate("gone", PEOPLE_OF_NOTE["gone"][1]) is True  # though the snapshot has it disabled
        finally:
            domain.tool("user", "disable", "gone")
        assert ask.validate("gone", PEOPLE_OF_NOTE["gone"][1]) is False

        for number in range(LOCKED_AFTER):
            assert ask.validate("lou", f"guess {number}") is False
        assert {text.split(",")[0] for text in verdicts("lou")} == {"wrong"}
        assert ask.validate("lou", PEOPLE_OF_NOTE["lou"][1]) is False
        assert re.match("disabled|locked", verdicts("lou")[-1]), verdicts("lou")
        domain.tool("user", "unlock", "lou")
        assert ask.validate("lou", PEOPLE_OF_NOTE["lou"][1]) is True
    for uid in ("gone", "lou"):
        assert PEOPLE_OF_NOTE[uid][1] not in log_text()


# Ranges, by the server that hands out nothing else.

BOUNDARIES = [0, 1, MOST_VALUES, MOST_VALUES + 1, 2 * MOST_VALUES, 5001]


def member_dn(number):
    return f"CN=Member {number},OU=Crowd,{SUFFIX}"


@contextlib.contextmanager
def ranged_server():
    entries = {SUFFIX: {"objectClass": ["top", "domain"]}}
    for number in range(max(BOUNDARIES)):
        entries[member_dn(number)] = {"objectClass": ["top", "person", "user"], "cn": [f"Member {number}"],
                                      "sAMAccountName": [f"m{number}"]}
    for count in BOUNDARIES:
        entries[f"CN=First {count},{SUFFIX}"] = {"objectClass": ["top", "group"], "cn": [f"First {count}"],
                                                 "member": [member_dn(number) for number in range(count)]}
    with RangedServer(SUFFIX, entries, (READER, READER_PASSWORD)) as server:
        yield server


def expect_ranges_complete(ask):
    for count in BOUNDARIES:
        expected = sorted(f"m{number}@corp.test" for number in range(count))
        assert sorted(ask.members(f"First {count}")[f"CN=First {count},{SUFFIX}"]) == expected, count
    assert ask.groups_of("m5000") == ["First 5001"]
    assert ask.groups_of("m1500") == ["First 1501", "First 3000", "First 5001"]


def test_ranges__come_complete(daemon):
    with ranged_server() as server:
        workdir.place(workdir.settings([server.url], READER), READER_PASSWORD)
        workdir.place_script()
        daemon.start("--verbose", keep=True)
        with Questions(timeout=60) as ask:
            expect_ranges_complete(ask)  # live
            # What a member's own entry says must not make up for values that were missed.
            server.hidden.add("memberOf")
            server.ranges.clear()
            assert workdir.run_script().returncode == 0
            assert server.ranges
            daemon.wait_line(re.compile("Directory: snapshot of the servers"), count=2)
            expect_ranges_complete(ask)


def test_ranges__half_a_group_is_no_group():
    """The server dies between two ranges: nothing is published."""
    with ranged_server() as server, Relay(server.port) as relay:
        server.hidden.add("memberOf")
        workdir.place(workdir.settings([relay.url], READER), READER_PASSWORD)
        workdir.good_sync()
        old, size, asked = workdir.snapshot(), relay.answered, len(server.ranges)
        assert asked >= 4
        for share in (0.5, 0.9, 0.98):
            relay.cut_after = int(size * share)
            done = workdir.ldap_sync()
            assert (done.status, len(done.errors.splitlines())) == (1, 1), done
            assert workdir.snapshot() == old
        assert len(server.ranges) > asked  # it was among the ranges that it died
