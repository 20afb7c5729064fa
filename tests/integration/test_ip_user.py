"""Bindings of addresses to users: bind, unbind, query, export, through any worker and across restarts."""

import os
import re
import select
import signal
import subprocess
import time

import pytest

from harness import directory, sandbox, wire
from harness.daemon import log_lines, write_file
from harness.store import STORE, another_writer

GUEST = "Proxy_guest_user"
REFUSED, NOT_FOUND = -1, 1


@pytest.fixture
def connection(served):
    with wire.Connection() as one:
        yield one


def test_bind__is_seen_by_every_worker_at_once(served):
    with served.connections_by_worker() as connections:
        one, other = connections.values()
        for number in range(200):
            for user in ("CORP\\alice", "CORP\\dave"):
                assert one.bind("10.3.0.1", user) == 0
                assert other.bound_user("10.3.0.1") == user  # whatever its reply cache holds
            one, other = other, one
        assert one.unbind("10.3.0.1") == 0
        assert other.bound_user("10.3.0.1") is None
        assert other.unbind("10.3.0.1") == NOT_FOUND


def test_query__tells_the_user_and_when_it_ends(connection):
    begin = int(time.time())
    assert connection.bind("10.3.1.1", "CORP\\alice") == 0
    answer = connection.query("10.3.1.1")
    assert answer.result == 0
    assert begin + 480 * 60 <= answer.expire_at <= time.time() + 480 * 60 + 1
    info = answer.userInfo
    dn, uid, domain, upn = directory.USERS["Alice Adams"]
    assert (info.user_ln, info.dn, info.uid, info.domain_dns, info.upn) == ("CORP\\alice", dn, uid, domain, upn)
    assert [group.cn for group in info.groupList] == directory.GROUPS_OF["alice"]
    assert connection.query("10.3.1.1") == answer
    assert connection.unbind("10.3.1.1") == 0
    answer = connection.query("10.3.1.1")
    assert (answer.result, answer.expire_at, answer.HasField("userInfo")) == (NOT_FOUND, 0, False)


def test_query__repeated_is_answered_from_the_reply_cache_until_the_user_changes(served):
    with served.connections_by_worker() as connections:
        (worker, one), (_, other) = connections.items()

        def hits(user):
            return served.count_lines(f"Debug: in reply cache (10.3.2.1->{user})", level="DBG", pid=worker)

        assert other.bind("10.3.2.1", "CORP\\alice") == 0
        for expected in (0, 1):
            assert one.bound_user("10.3.2.1") == "CORP\\alice"
            assert hits("CORP\\alice") == expected
        # Bound anew elsewhere: what this worker remembers is about somebody else.
        assert other.bind("10.3.2.1", "CORP\\dave") == 0
        answer = one.query("10.3.2.1")
        assert (answer.userInfo.uid, hits("CORP\\dave")) == ("dave", 0)
        assert [group.cn for group in answer.userInfo.groupList] == directory.GROUPS_OF["dave"]
        assert one.bound_user("10.3.2.1") == "CORP\\dave" and hits("CORP\\dave") == 1
        assert one.bind("10.3.2.1", "CORP\\dave") == 0  # also when it is the user of before
        assert one.bound_user("10.3.2.1") == "CORP\\dave" and hits("CORP\\dave") == 1
        for similar in ("CORP\\dav", "CORP\\dave2", "CORP\\Dave", "CORP\\dave\0"):
            assert other.bind("10.3.2.1", similar) == 0
            assert one.bound_user("10.3.2.1") == similar
        assert one.unbind("10.3.2.1") == 0
        assert not one.query("10.3.2.1").HasField("userInfo")


def test_answers__are_kept_for_a_day_and_what_the_agent_was_asked_for_two_minutes(daemon):
    sandbox.clean(True)
    sandbox.set_clock(0)
    daemon.start("--verbose", "--process-num", "1", workers=1, keep=True,
                 files=directory.files(**{"IPUserCache.ini": "[IPUserCache]\nLifetime=0\n"}))
    kept = {(wire.USER_INFO, wire.pb.UserInfoQueryRequest(user_ln="alice").SerializeToString()): "in reply cache (alice)",
            (wire.IP_QUERY, wire.pb.IPUserQueryRequest(ip="10.3.12.1").SerializeToString()): "in reply cache (10.3.12.1->CORP\\alice)",
            (wire.IP_AUTH, wire.pb.IPAuthRequest(ip="10.3.12.1").SerializeToString()): "async, ip(10.3.12.1), cache, rc(0)"}
    with wire.Connection() as connection:
        assert connection.bind("10.3.12.1", "CORP\\alice") == 0

        def asked_again(number):
            request, text = list(kept.items())[number]
            before = daemon.count_lines(re.compile(re.escape(text)), level="DBG")
            assert connection.ask(*request).result == 0
            return daemon.count_lines(re.compile(re.escape(text)), level="DBG") == before
        for seconds, expected in ((0, [True] * 3), (90, [False] * 3), (150, [False, False, True]), (86370, [False, False, True]),
                                  (86450, [True, True, False])):
            sandbox.set_clock(seconds)
            assert [asked_again(number) for number in range(3)] == expected, seconds
    assert daemon.stop() == 0


def test_query__users_that_the_directory_does_not_know(served, connection):
    assert connection.bind("10.3.3.1", "CORP\\ghost") == 0
    for _ in range(2):
        answer = connection.query("10.3.3.1")
        assert (answer.result, answer.userInfo.user_ln) == (0, "CORP\\ghost")
        assert not any((answer.userInfo.dn, answer.userInfo.cn, answer.userInfo.uid, answer.userInfo.upn))
    assert served.count_lines("Debug: in reply cache (10.3.3.1->CORP\\ghost)") == 0
    assert connection.bind("10.3.3.1", f"{GUEST}\0x") == 0
    assert connection.query("10.3.3.1").userInfo.cn == ""  # somebody else than the guest
    for spelling in (GUEST, "proxy_GUEST_user"):
        assert connection.bind("10.3.3.1", spelling) == 0
        for _ in range(2):
            info = connection.query("10.3.3.1").userInfo
            assert (info.user_ln, info.cn, info.upn, info.uid, info.dn, info.domain_dns) == (GUEST,) * 4 + ("", "")
            assert not info.groupList
    assert connection.unbind("10.3.3.1") == 0


@pytest.mark.parametrize("ip", ["", "alice", "10.3.5.256", "10.3.5.1\0", "fe80::1%lo", "x" * 100_000])
def test_bind__text_that_is_no_address_is_refused(connection, ip):
    assert connection.bind(ip, "CORP\\alice") == REFUSED
    assert connection.query(ip).result == REFUSED
    assert connection.unbind(ip) == REFUSED
    assert connection.bound_user("10.3.5.1") is None


def test_bind__waits_for_another_writer_and_holds_up_nobody(daemon):
    daemon.start("--process-num", "1", workers=1, files=directory.files())
    asker, *binders = [wire.Connection() for _ in range(20)]
    binding = wire.frame(wire.IP_BIND, wire.pb.IPUserBindRequest(ip="10.3.10.1", user_ln="CORP\\alice"))
    for binder in binders:
        binder.query("10.3.10.1")
    assert asker.user_info("alice").result == 0  # from the reply cache from here on
    with another_writer() as holder:
        begin = time.monotonic()
        for binder in binders:  # more than there are threads, and the first of this worker
            binder.send(binding)
        slowest = 0
        while (now := time.monotonic()) < begin + 1.5:
            assert asker.user_info("alice").result == 0
            slowest = max(slowest, time.monotonic() - now)
        assert asker.bound_user("10.3.10.1") is None
        assert not select.select([binder.socket for binder in binders], [], [], 0)[0]
        holder.stdin.close()
        for binder in binders:
            assert binder.receive_answer(wire.IP_BIND).result == 0
    assert asker.bound_user("10.3.10.1") == "CORP\\alice"
    assert slowest < 0.5, f"a look-up took {slowest:.3f} s"
    for one in (asker, *binders):
        one.close()
    assert daemon.stop() == 0


def transactions(store):
    """How many times the store was written to, from the newer of its two first pages."""
    with open(store, "rb") as file:
        pages = file.read(8192)
    return max(int.from_bytes(pages[start + 144:start + 152], "little") for start in (0, 4096))


def test_bind__many_that_come_together_are_made_together(daemon):
    daemon.start("--process-num", "1", workers=1, files=directory.files())
    connections = [wire.Connection() for _ in range(50)]
    answered, gone = connections[:40], connections[40:]
    for connection in connections:
        assert connection.query("10.3.11.1").result == NOT_FOUND
    (worker,) = daemon.workers()
    before = transactions(STORE)
    os.kill(worker, signal.SIGSTOP)
    for number, connection in enumerate(connections):
        binding = wire.pb.IPUserBindRequest(ip=f"10.3.11.{number}", user_ln=f"CORP\\user{number}")
        connection.send(wire.frame(wire.IP_BIND, binding))
    for connection in gone:
        connection.reset()
    os.kill(worker, signal.SIGCONT)
    for number, connection in enumerate(answered):
        assert connection.receive_answer(wire.IP_BIND).result == 0
        assert connection.bound_user(f"10.3.11.{number}") == f"CORP\\user{number}"
        assert connection.unbind(f"10.3.11.{number}") == 0
        assert connection.bound_user(f"10.3.11.{number}") is None
    spent = transactions(STORE) - before - len(answered)
    assert 0 < spent <= 20, f"{spent} transactions for the binds of {len(connections)} clients"
    for connection in connections:
        connection.close()
    daemon.kill_everything()  # a worker that was stopped for a while is taken for dead: no clean end would reach it


def test_export__holds_the_bindings_and_survives_a_full_disk(daemon):
    daemon.start(files=directory.files())
    tiny = f"{sandbox.OUTSIDE}/tiny"
    sandbox.mount_small_disk(tiny, "64k")
    with wire.Connection() as connection:
        assert connection.bind("10.3.9.1", "CORP\\alice") == 0
        assert connection.export(f"{tiny}/bindings.csv") == 0
        with open(f"{tiny}/bindings.csv", "rb") as file:
            good = file.read()
            status = os.fstat(file.fileno())
        assert good == f"ip,user,expire_at\r\n10.3.9.1,CORP\\alice,{connection.query('10.3.9.1').expire_at}\r\n".encode()
        assert (status.st_mode & 0o7777, status.st_uid) == (0o640, sandbox.ACCOUNT_ID)
        for number in range(100):
            assert connection.bind(f"10.3.9.{number}", "u" * 1000) == 0
        before = len(log_lines())
        assert connection.export(f"{tiny}/bindings.csv") == -1
        assert connection.export(f"{tiny}/other.csv") == -1
        told = [line for line in log_lines()[before:]]
        assert len(told) == 2 and all("No space left" in line.text for line in told), told
        assert os.listdir(tiny) == ["bindings.csv"]
        with open(f"{tiny}/bindings.csv", "rb") as file:
            assert file.read() == good
        assert connection.query("10.3.9.1").result == 0
    assert daemon.stop() == 0


def test_restart__of_the_machine_starts_from_the_compact_copy(daemon):
    """Another boot id: the live file may be torn, what was copied at the clean end counts."""
    daemon.start(files=directory.files())
    with wire.Connection() as connection:
        assert connection.bind("10.4.9.1", "CORP\\alice") == 0
    assert daemon.stop() == 0
    folder = f"{sandbox.WORKDIR}/ip_user_cache"
    with open(f"{folder}/bindings.mdb", "r+b") as file:
        file.write(b"\xff" * 8192)
    fake = f"{sandbox.OUTSIDE}/boot_id"
    write_file("boot_id", "01234567-89ab-cdef-0123-456789abcdef\n", folder=sandbox.OUTSIDE)
    os.chmod(fake, 0o644)
    boot_id = "/proc/sys/kernel/random/boot_id"
    subprocess.run(["mount", "--bind", fake, boot_id], check=True)
    try:
        daemon.start(keep=True)
        with wire.Connection() as connection:
            assert connection.bound_user("10.4.9.1") == "CORP\\alice"
            assert connection.bind("10.4.9.2", "CORP\\dave") == 0
        assert daemon.stop() == 0
    finally:
        subprocess.run(["umount", boot_id], check=True)


def test_expiry__binding_ends_and_a_bind_renews_it(daemon):
    daemon.start(files={"IPUserCache.ini": "[IPUserCache]\nLifetime=0\n"})
    with wire.Connection() as connection:
        assert connection.bind("10.5.2.1", "CORP\\alice") == 0
        answer = connection.query("10.5.2.1")
        assert (answer.result, answer.expire_at) == (0, 0)  # for ever
    assert daemon.stop() == 0
    write_file("IPUserCache.ini", "[IPUserCache]\nLifetime=1\n")
    daemon.start(keep=True)
    with wire.Connection() as connection:
        assert connection.query("10.5.2.1").expire_at == 0
        assert connection.bind("10.5.2.1", "CORP\\alice") == 0
        first = connection.query("10.5.2.1").expire_at
        assert abs(first - time.time() - 60) < 5
    assert daemon.stop() == 0
