"""NTLM with hashes of the directory, with clients that nobody here wrote; and many of them."""

import base64
import collections
import concurrent.futures
import os
import re
from pathlib import Path

import pytest

from harness import directory, wire
from harness.authctl import OK, OTHER, USAGE, authctl
from harness.daemon import log_text, until
from harness.wire import pb
from servers import ntlm, workdir
from servers.ntlm import HASH, Logon, SambaClient, last_refusal


def start(daemon, *options, **more):
    """The usual directory, with hashes for some, and one more in the other domain."""
    text = directory.ldif()
    for uid in ("alice", "bob", "zo\u00eb"):
        line = directory.ldif_line("sAMAccountName", uid)
        text = text.replace(line, f"{line}sambaNTPassword: {HASH}\n")
    text += directory.entry("uid=alice,dc=lab,dc=test", ("objectClass", "person"), ("cn", "Other Alice"), ("uid", "alice2"),
                            ("sambaNTPassword", HASH.lower()))
    daemon.start("--verbose", *options, files={"directory.ldif": text}, **more)


def test_logons__each_refusal_with_its_reason(daemon):
    start(daemon)
    for user, domain, expected in (
            ("ALICE", "corp.test", "CORP\\alice"), ("alice", "", "CORP\\alice"), ("zo\u00cb", "Corp", "CORP\\zo\u00eb"),
            ("alice2", "LAB", "LAB\\alice2"), ("alice.adams@corp.test", "", "CORP\\alice")):
        assert ntlm.log_on(user, "password", domain) == expected, (user, domain)
        assert ntlm.log_on(user, "Password", domain) is None and last_refusal().endswith(": wrong password")
    for user, domain, reason in (
            ("bob", "CORP", "the account is disabled"), ("carol", "CORP", "no NT hash"), ("nobody", "CORP", "no such user"),
            ("alice", "EVIL", "the domain is not one"), ("alice2", "CORP", "no such user")):
        assert ntlm.log_on(user, "password", domain) is None
        assert f"from {ntlm.CLIENT} refused: {domain}\\{user}: {reason}" in last_refusal()
    assert ntlm.log_on("alice", "password", "CORP", "--option=client NTLMv2 auth=no") is None
    assert "only NTLMv2" in last_refusal()
    assert ntlm.log_on_with_curl("CORP\\alice", "password") == "CORP\\alice"
    assert ntlm.log_on_with_curl("alice", "passw0rd") is None
    assert not re.search("(?i)" + HASH, log_text())


def test_challenge__is_for_one_exchange_on_one_connection(daemon):
    start(daemon)
    with SambaClient("alice", "password", "CORP") as client:
        first, second = Logon(), Logon()
        assert second.challenge(client.type1())
        answer = client.type3(first.challenge(client.type1()))
        assert second.user(answer) is None and last_refusal().endswith(": wrong password")
        assert first.user(answer) == "CORP\\alice"
        assert first.challenge(client.type1()), "the connection is free for another exchange"
        assert first.user(answer) is None, "which the old answer does not fit"
        assert second.connection.query("192.0.2.254").result == 1


def request(number, token, client=ntlm.CLIENT):
    return pb.NTLMAuthRequest(messageType=number, clientIP=client, requestContent=token)


INVALID = "Error: invalid NTLM_AUTH_REQUEST type {} message"


def test_frames__of_an_exchange(daemon):
    start(daemon)
    with SambaClient("alice", "password", "CORP") as client:
        token = client.type1()
        for begun, data, level, line in (
                (False, wire.frame(wire.NTLM, request(2, token)), "ERR", INVALID.format(1)),
                (False, wire.frame(wire.NTLM, request(1, token, "")), "ERR", INVALID.format(1)),  # ends at its first zero
                (True, wire.frame(wire.NTLM, request(1, token)), "ERR", INVALID.format(2)),
                (True, wire.HEADER.pack(-1, wire.NTLM), "ERR", INVALID.format(2)),
                (True, wire.HEADER.pack(wire.LARGEST_BODY + 1, wire.NTLM), "INF", "Error: receive message is too big, discard it")):
            logon, before = Logon(), daemon.count_lines(line, level=level)
            assert not begun or logon.challenge(token)
            logon.connection.send(data)
            logon.connection.expect_closed()
            daemon.wait_line(line, level=level, count=before + 1)
        # The header of the second one may name any type, and its bytes may come one after the other.
        logon = Logon()
        second = request(2, client.type3(logon.challenge(client.type1()))).SerializeToString()
        for part in (wire.HEADER.pack(len(second), 99)[:5], wire.HEADER.pack(len(second), 99)[5:] + second[:9], second[9:]):
            before = daemon.count_lines("Info: need more data to continue")
            logon.connection.send(part)
            if part != second[9:]:
                until(lambda: daemon.count_lines("Info: need more data to continue") > before, "the wait for more")
        assert logon.connection.receive_answer(wire.NTLM).responseContent == "CORP\\alice"
        assert logon.connection.query("192.0.2.254").result == 1
        # One byte more than there is room for is not looked at.
        for size, reason in ((3071, "it is no NTLM message 1"), (3072, "longer than 3071 bytes")):
            assert logon.challenge(base64.b64encode(bytes(size)).decode()) is None and reason in last_refusal()


@pytest.mark.parametrize("free", [0, 1])
def test_descriptors__that_are_used_up_at_the_first_logon_spoil_no_later_one(daemon, free):
    start(daemon, "--process-num", "1", "--thread-num", "1", open_files=(60, 60), workers=1)
    with SambaClient("zo\u00cb", "password", "CORP") as client:
        logon = Logon()
        logon.connection.user_info("alice")  # accepted, and the directory is open
        with daemon.without_descriptors(60, free):
            assert client.log_on(logon) is None
        if free:  # for the log
            assert "cannot be told: Too many open files" in last_refusal()
        assert client.log_on(Logon()) == "CORP\\zo\u00eb", last_refusal()


def test_authctl__logs_on_as_a_client(daemon, monkeypatch):
    # The mechanism never gives back what a plain password cost its client, which a sanitizer would report.
    monkeypatch.setenv("ASAN_OPTIONS", "detect_leaks=0")
    start(daemon)
    assert authctl("ntlm", "CORP\\alice", given="password\n") == (OK, "CORP\\alice\n", "")
    code, out, errors = authctl("--json", "ntlm", "alice", "--client-ip", "192.0.2.9", given="Password")
    assert (code, out) == (OTHER, '{"result":-1,"responseContent":""}\n') and "not accepted" in errors
    assert "from 192.0.2.9 refused: alice: wrong password" in last_refusal()
    assert authctl("ntlm", "alice")[0] == authctl("ntlm", "", given="x\n")[0] == USAGE


def worker_figures(daemon):
    """Per worker: memory in MB, which says nothing under a sanitizer, and open descriptors."""
    figures, judged = {}, not workdir.sanitized("AuthDaemon")
    for pid in daemon.workers():
        pages = int(Path(f"/proc/{pid}/statm").read_text("ascii").split()[1])
        figures[pid] = (pages * 4 / 1024 * judged, len(daemon.descriptors(pid)))
    return figures


def exchange_in_threads(each):
    """All verdicts, counted; a third of the passwords is wrong."""
    def client(number):
        logon = Logon()
        with SambaClient("alice", "password", "CORP") as right, SambaClient("alice2", "guess", "LAB") as wrong, logon.connection:
            return [("wrong", wrong.log_on(logon)) if (number + turn) % 3 == 0 else ("right", right.log_on(logon))
                    for turn in range(each)]
    with concurrent.futures.ThreadPoolExecutor(16) as pool:
        return collections.Counter(verdict for some in pool.map(client, range(16)) for verdict in some)


def test_many_exchanges__no_verdict_is_wrong_and_nothing_grows(daemon):
    """Those that were left half-way go with their connections."""
    start(daemon)
    exchange_in_threads(20)
    daemon.wait_idle()
    before = worker_figures(daemon)
    each = int(os.environ.get("AUTHD_EXCHANGES", "800")) // 16
    verdicts = exchange_in_threads(each)
    assert set(verdicts) == {("right", "CORP\\alice"), ("wrong", None)} and sum(verdicts.values()) == 16 * each
    with SambaClient("alice", "password", "CORP") as client:
        type1 = client.type1()
    for _ in range(2):
        half = []
        for _ in range(2000):  # each one served before the next: the daemon's queue of new ones is short
            half.append(Logon())
            assert half[-1].challenge(type1)
        for number, logon in enumerate(half):
            (logon.connection.reset if number % 2 else logon.connection.close)()
        daemon.wait_idle()
    for pid, (memory, descriptors) in worker_figures(daemon).items():
        assert descriptors <= before[pid][1] + 1, daemon.descriptors(pid)
        assert memory < before[pid][0] + 6, before
