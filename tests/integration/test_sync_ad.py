"""A domain controller, real in all but its maker: synchronisation, nested and primary groups, big groups, accounts,
names."""

import re
from pathlib import Path

import pytest

from harness.daemon import log_text
from servers import workdir
from servers.samba_ad import (CROWD, LOCKED_AFTER, PEOPLE_OF_NOTE, READER, READER_PASSWORD, SUFFIX, USERS, SambaDomain,
                              group_dn, user_dn)
from servers.workdir import Questions

CIRCLE = ["Inner", "Middle", "Outer"]
LAB = "R&D (K\u00f6ln), \\Lab*"
OWN_GROUPS = {"alice": CIRCLE, "jm\u00fcller": CIRCLE, "paren(1)": CIRCLE, "back": [LAB], "star": [LAB],
              "pia": ["Primary Crew"], "m01501": ["Crowd"]}


@pytest.fixture(scope="module")
def domain():
    with SambaDomain() as controller:
        yield controller


def place(domain, servers=None, reader=READER, password=READER_PASSWORD, **more):
    more = {"CACertFile": "ca.pem", "OperationTimeout": 5, **more}
    workdir.place(workdir.settings(servers or [domain.tls_url], reader, **more), password,
                  **{"ca.pem": Path(domain.ca).read_bytes()})


@pytest.mark.parametrize("change, said", [
    ({"reader": "svc-read@corp.test"}, ": works"),
    ({"reader": "CORP\\svc-read", "servers": ["ldap://dc1.corp.test"], "StartTLS": "yes"}, ": works"),
    ({"servers": ["ldap://dc1.corp.test"]}, "FAILS.*(?i:stronger|encrypt|TLS)"),
    ({"servers": ["ldaps://10.99.0.1"]}, "FAILS.*(?i:certificate|name)"),
    ({"reader": user_dn("gone"), "password": PEOPLE_OF_NOTE["gone"][1]}, "FAILS.*(?i:reading account.*disabled)"),
    ({"base": "DC=other,DC=test"}, "FAILS.*(?i:referral|no such object|nothing there)"),
], ids=["principal", "DOMAIN\\uid and StartTLS", "unencrypted", "by address", "disabled", "base"])
def test_check__says_what_works(domain, change, said):
    place(domain, **change)
    done = workdir.ldap_sync("--check")
    assert done.status == ("FAILS" in said) and re.search(said, done.output, re.DOTALL), done


def address(uid):
    return f"{uid}@corp.test"


def test_everybody__live_and_from_the_snapshot(daemon, domain):
    place(domain)
    daemon.start("--verbose", keep=True)

    def answers():
        with Questions(timeout=60) as ask:
            for uid, (cn, _) in PEOPLE_OF_NOTE.items():
                for name in (f"corp.test\\{uid.upper()}", user_dn(uid).lower()):
                    assert ask.user(name)[:4] == ("corp.test", uid, cn, user_dn(uid)), name
            for uid, groups in OWN_GROUPS.items():
                assert ask.groups_of(address(uid)) == sorted([*groups, "Domain Users", "Users"], key=str.lower), uid
            for cn in CIRCLE:
                assert ask.groups_in(cn) == [one for one in CIRCLE if one != cn]
                assert ask.members(group_dn(cn), by_dn=1) == {
                    group_dn(cn): sorted(map(address, ["alice", "jm\u00fcller", "paren(1)"]))}, cn
            # Primary groups have no "member" for their users.
            assert ask.members("Primary Crew") == {group_dn("Primary Crew"): [address("pia")]}
            crowd = [address(f"m{number:05}") for number in range(1, CROWD + 1)]
            assert ask.members("Crowd") == {group_dn("Crowd"): crowd}
            [users] = ask.members("Domain Users").values()
            assert {*crowd, address("pia")} <= set(users) and address("dc1$") not in users
            assert ask.users("Member 0150") == ["m01500", "m01501"] and "DC1$" not in ask.users("")
            return {
                **{("user", name): ask.user(name) for name in [
                    "ALICE@corp.test", "DC1$", "M\u00fcller*", "CN=Users", USERS, "administrator", "guest", READER,
                    f"CN=DC1,OU=Domain Controllers,{SUFFIX}"]},
                **{("groups of", name): ask.groups_of(name) for name in ["Administrator", "krbtgt", "gone"]},
                **{("groups", name): (ask.groups(name), ask.groups_in(name, 0)) for name in ["users", "*"]},
                "builtin": ask.members("Administrators", "Guests"),
            }

    workdir.expect_live_as_stored(daemon, answers)


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
    daemon.start("--process-num", "1", keep=True, workers=1)
    gones, lous = PEOPLE_OF_NOTE["gone"][1], PEOPLE_OF_NOTE["lou"][1]

    def why_not(uid, password):
        assert ask.validate(uid, password) is False
        return re.findall(rf"password of user {uid} refused: (.*) @<", log_text())[-1]

    with Questions() as ask:
        assert why_not("gone", gones).startswith("disabled")
        domain.tool("user", "enable", "gone")
        try:
            assert ask.validate("gone", gones) is True  # though the snapshot has it disabled
        finally:
            domain.tool("user", "disable", "gone")
        assert {why_not("lou", f"guess {number}").split(",")[0] for number in range(LOCKED_AFTER)} == {"wrong"}
        assert re.match("disabled|locked", why_not("lou", lous))
        domain.tool("user", "unlock", "lou")
        assert ask.validate("lou", lous) is True
    assert gones not in log_text() and lous not in log_text()
