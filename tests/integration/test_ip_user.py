"""Bindings of addresses to users: bind, unbind, query, export, through any worker and across restarts."""

import os
import re
import signal
import subprocess
import time

from harness import directory, sandbox, wire
from harness.daemon import until, write_file
from harness.store import STORE

GUEST = "Proxy_guest_user"
REFUSED, NOT_FOUND = -1, 1


def test_query__tells_the_user_and_when_it_ends(connection):
    begin = int(time.time())
    dn, uid, domain, upn = directory.USERS["Alice Adams"]
    known = "CORP\\alice", dn, "Alice Adams", uid, upn, domain
    for bound, expected in [("CORP\\alice", known),
                            ("CORP\\ghost", ("CORP\\ghost",) + ("",) * 5),
                            (f"{GUEST}\0x", (f"{GUEST}\0x",) + ("",) * 5),  # somebody else than the guest
                            ("proxy_GUEST_user", (GUEST, "", GUEST, GUEST, GUEST, ""))]:
        assert connection.bind("10.3.1.1", bound) == 0
        answer = connection.query("10.3.1.1")
        assert begin + 480 * 60 <= answer.expire_at <= time.time() + 480 * 60 + 1
        info = answer.userInfo
        assert (info.user_ln, info.dn, info.cn, info.uid, info.upn, info.domain_dns) == expected
        assert [group.cn for group in info.groupList] == (directory.GROUPS_OF["alice"] if expected is known else [])
        assert connection.query("10.3.1.1") == answer
    assert connection.unbind("10.3.1.1") == 0
    answer = connection.query("10.3.1.1")
    assert (answer.result, answer.expire_at, answer.HasField("userInfo")) == (NOT_FOUND, 0, False)


def test_bind__counts_for_every_worker_at_once_whatever_its_reply_cache_holds(served):
    with served.connections_by_worker() as connections:
        (worker, one), (_, other) = connections.items()
        for user in ["CORP\\alice", "CORP\\dave"] * 50 + ["CORP\\dav", "CORP\\dave2", "CORP\\Dave", "CORP\\dave\0"]:
            assert other.bind("10.3.2.1", user) == 0
            assert one.bound_user("10.3.2.1") == user
        for cached in (0, 1, 2):
            assert other.bind("10.3.2.1", "CORP\\carol") == 0
            assert one.query("10.3.2.1").userInfo.uid == "carol"
            assert served.count_lines("Debug: in reply cache (10.3.2.1->CORP\\carol)", pid=worker) == cached
        assert one.unbind("10.3.2.1") == 0
        assert not one.query("10.3.2.1").HasField("userInfo") and other.bound_user("10.3.2.1") is None
        assert other.unbind("10.3.2.1") == NOT_FOUND


def test_answers__are_kept_for_a_day_and_what_the_agent_was_asked_for_two_minutes(daemon):
    sandbox.clean(True)
    sandbox.set_clock(0)
    daemon.start("--verbose", "--process-num", "1", workers=1, keep=True,
                 files=directory.files(**{"IPUserCache.ini": "[IPUserCache]\nLifetime=0\n"}))
    ip = "10.3.12.1"
    requests = [(wire.USER_INFO, wire.pb.UserInfoQueryRequest(user_ln="alice"), "in reply cache (alice)"),
                (wire.IP_QUERY, wire.pb.IPUserQueryRequest(ip=ip), f"in reply cache ({ip}->CORP\\alice)"),
                (wire.IP_AUTH, wire.pb.IPAuthRequest(ip=ip), f"async, ip({ip}), cache, rc(0)")]
    with wire.Connection() as connection:
        assert connection.bind(ip, "CORP\\alice") == 0

        def answered_from_memory(kind, message, text):
            line = re.compile(re.escape(text))
            before = daemon.count_lines(line, level="DBG")
            assert connection.ask(kind, message).result == 0
            return daemon.count_lines(line, level="DBG") > before
        for seconds, expected in ((0, [False] * 3), (90, [True] * 3), (150, [True, True, False]),
                                  (86370, [True, True, False]), (86450, [False, False, True])):
            sandbox.set_clock(seconds)
            assert [answered_from_memory(*request) for request in requests] == expected, seconds
        assert connection.query(ip).expire_at == 0  # for ever, as the settings say


def test_bind__text_that_is_no_address_is_refused(connection):
    for ip in ("", "10.3.5.256", "10.3.5.1\0", "fe80::1%lo", "x" * 100_000):
        assert connection.bind(ip, "CORP\\alice") == REFUSED, ip
        assert connection.query(ip).result == connection.unbind(ip) == REFUSED, ip
    assert connection.bound_user("10.3.5.1") is None


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
    spent = transactions(STORE) - before
    assert 0 < spent <= 20, f"{spent} transactions for the binds of {len(connections)} clients"


def test_export__survives_a_full_disk(daemon):
    daemon.start(files=directory.files())
    tiny = f"{sandbox.OUTSIDE}/tiny"
    sandbox.mount_small_disk(tiny, "64k")

    def exported():
        with open(f"{tiny}/bindings.csv", "rb") as file:
            return file.read(), os.listdir(tiny)
    with wire.Connection() as connection:
        assert connection.bind("10.3.9.1", "CORP\\alice") == 0
        assert connection.export(f"{tiny}/bindings.csv") == 0
        expire_at = connection.query("10.3.9.1").expire_at
        good = f"ip,user,expire_at\r\n10.3.9.1,CORP\\alice,{expire_at}\r\n".encode(), ["bindings.csv"]
        assert exported() == good
        for number in range(100):
            assert connection.bind(f"10.3.9.{number}", "u" * 1000) == 0
        assert connection.export(f"{tiny}/bindings.csv") == connection.export(f"{tiny}/other.csv") == -1
        assert daemon.count_lines(re.compile("No space left")) == 2
        assert exported() == good
        assert connection.query("10.3.9.1").result == 0


def test_restart__of_the_machine_keeps_what_was_bound_at_the_clean_end(daemon):
    """After another boot the live file may be torn: the copy of the clean end counts."""
    daemon.start(files=directory.files())
    with wire.Connection() as connection:
        assert connection.query("10.4.9.1").result == NOT_FOUND  # with which the store is there
        until(lambda: os.path.exists(f"{os.path.dirname(STORE)}/bindings.compact.mdb"), "the first copy")
        assert connection.bind("10.4.9.1", "CORP\\alice") == 0
    assert daemon.stop() == 0
    write_file("boot_id", "01234567-89ab-cdef-0123-456789abcdef\n", folder=sandbox.OUTSIDE)
    boot_id = "/proc/sys/kernel/random/boot_id"
    subprocess.run(["mount", "--bind", f"{sandbox.OUTSIDE}/boot_id", boot_id], check=True)
    try:
        daemon.start(keep=True)
        daemon.wait_line(re.compile("starting from the compact copy, 1 bindings"), level="INF")
        with wire.Connection() as connection:
            assert connection.bound_user("10.4.9.1") == "CORP\\alice"
    finally:
        subprocess.run(["umount", boot_id], check=True)
