"""A big directory: how long a synchronisation takes and how much memory.
The long form, with AUTHD_LONG_TESTS=1, has 100,000 users and 10,000 groups."""

import os
import re

import pytest

from servers import workdir
from servers.slapd import GROUPS, PEOPLE, READER, READER_PASSWORD, Slapd, entry
from servers.workdir import Questions

LONG = os.environ.get("AUTHD_LONG_TESTS", "") not in ("", "0")
USERS, GROUP_COUNT = (100_000, 10_000) if LONG else (5_000, 500)
GROUPS_OF_ONE = 5
IN_GROUP = USERS * GROUPS_OF_ONE // GROUP_COUNT


def uid(number):
    return f"u{number:06}"


def dn(number):
    return f"uid={uid(number)},{PEOPLE}"


def group(number):
    return f"group{number:05}"


def members(number):
    """Every user is in five groups; a prime step mixes them."""
    return [(number * IN_GROUP + place * 7) % USERS for place in range(IN_GROUP)]


def content():
    for number in range(USERS):
        yield entry(dn(number), objectClass="inetOrgPerson", uid=uid(number), cn=f"User {number:06}", sn=f"Name {number}",
                    mail=f"{uid(number)}@corp.test")
    for number in range(GROUP_COUNT):
        # In chains of ten.
        nested = [f"cn={group(number + 1)},{GROUPS}"] if number % 10 < 9 else []
        yield entry(f"cn={group(number)},{GROUPS}", objectClass="groupOfNames", cn=group(number),
                    member=[dn(member) for member in members(number)] + nested)


@pytest.fixture(scope="module")
def slapd():
    with Slapd("".join(content())) as server:
        yield server


def test_everything__in_reasonable_time_and_memory(daemon, slapd, capsys):
    workdir.place(workdir.settings([slapd.url], READER, Schema="rfc2307bis", OperationTimeout=10), READER_PASSWORD)
    process = workdir.start_sync()
    seconds, peak = workdir.measure(process)
    done = workdir.finish(process)
    assert (done.status, done.errors) == (0, "")
    size = os.stat(workdir.SNAPSHOT).st_size
    with capsys.disabled():
        print(f"\n{USERS} users, {GROUP_COUNT} groups, {USERS * GROUPS_OF_ONE} memberships of users: ldap_sync "
              f"{seconds:.2f} s, {peak:.0f} MB peak, snapshot {size / 2**20:.0f} MB")
    found = re.search(r"(\d+) users, (\d+) groups, (\d+) memberships", done.output)
    nested = GROUP_COUNT // 10 * 9
    assert [int(number) for number in found.groups()] == [USERS, GROUP_COUNT, USERS * GROUPS_OF_ONE + nested]
    # Generous: a fault of the order of growth shows in the long form, a busy machine does not.
    assert seconds < 20 + (USERS + GROUP_COUNT) / 1000
    if not workdir.sanitized("ldap_sync"):
        assert peak < 100 + 5 * (USERS + GROUP_COUNT) / 1024

    daemon.start(keep=True)
    with Questions(timeout=60) as ask:
        for number in (0, 12, USERS - 1):
            direct = {which for which in range(GROUP_COUNT) if number in members(which)}
            above = {which for one in direct for which in range(one - one % 10, one + 1)}
            assert ask.groups_of(uid(number)) == sorted(map(group, above)), number
        last = GROUP_COUNT - 1
        assert sorted(ask.members(group(last))[f"cn={group(last)},{GROUPS}"]) == sorted(
            f"{uid(member)}@corp.test" for member in members(last))
