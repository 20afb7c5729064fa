"""A big directory: how long a synchronisation takes and how much memory.
The long form, with AUTHD_LONG_TESTS=1, has 100,000 users and 10,000 groups."""

import os
import resource
import time

from servers import workdir
from servers.slapd import GROUPS, PEOPLE, READER, READER_PASSWORD, Slapd, entry
from servers.workdir import Questions

LONG = os.environ.get("AUTHD_LONG_TESTS", "") not in ("", "0")
USERS, GROUP_COUNT = (100_000, 10_000) if LONG else (5_000, 500)
IN_GROUP = USERS * 5 // GROUP_COUNT  # every user is in five groups


def uid(number):
    return f"u{number:06}"


def group(number):
    return f"group{number:05}"


def members(number):
    """A prime step mixes them."""
    return [(number * IN_GROUP + place * 7) % USERS for place in range(IN_GROUP)]


def content():
    for number in range(USERS):
        yield entry(f"uid={uid(number)},{PEOPLE}", objectClass="inetOrgPerson", uid=uid(number), cn=uid(number), sn="Name")
    for number in range(GROUP_COUNT):
        nested = [f"cn={group(number + 1)},{GROUPS}"] if number % 10 < 9 else []  # in chains of ten
        yield entry(f"cn={group(number)},{GROUPS}", objectClass="groupOfNames", cn=group(number),
                    member=[f"uid={uid(member)},{PEOPLE}" for member in members(number)] + nested)


def test_everything__in_reasonable_time_and_memory(daemon):
    with Slapd("".join(content())) as slapd:
        workdir.place(workdir.settings([slapd.url], READER, Schema="rfc2307bis", OperationTimeout=10), READER_PASSWORD)
        # Both are generous: a fault of the order of growth shows in the long form, a busy machine does not.
        most = (100 << 20) + 5_000 * (USERS + GROUP_COUNT)
        begin = time.monotonic()
        told = workdir.good_sync(**({} if workdir.sanitized("ldap_sync") else workdir.limit(resource.RLIMIT_DATA, most)))
        assert time.monotonic() - begin < 20 + (USERS + GROUP_COUNT) / 1000
    assert f"{USERS} users, {GROUP_COUNT} groups, {USERS * 5 + GROUP_COUNT // 10 * 9} memberships" in told
    daemon.start(keep=True)
    with Questions(timeout=60) as ask:
        direct = {number for number in range(GROUP_COUNT) if 12 in members(number)}
        above = {group(which) for one in direct for which in range(one - one % 10, one + 1)}
        assert ask.groups_of(uid(12)) == sorted(above)
        last = GROUP_COUNT - 1
        expected = sorted(f"{uid(one)}@corp.test" for one in members(last))
        assert ask.members(group(last)) == {f"cn={group(last)},{GROUPS}": expected}
