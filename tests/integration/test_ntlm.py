"""NTLM with hashes of the directory, with clients that nobody here wrote; and many of them."""

import collections
import os
import re
import subprocess
import threading

from harness import directory, wire
from harness.daemon import LONG_WAIT, log_lines, log_text, program
from harness.directory import entry
from servers import ntlm, workdir
from servers.ntlm import HASH, Logon, SambaClient


def ldif():
    """The usual directory, with hashes for some, and one more in the other domain."""
    text = directory.ldif()
    for uid in ("alice", "bob", "zo\u00eb"):
        line = directory.ldif_line("sAMAccountName", uid)
        assert line in text
        text = text.replace(line, f"{line}sambaNTPassword: {HASH}\n")
    return text + entry("uid=alice,dc=lab,dc=test", ("objectClass", "person"), ("cn", "Other Alice"), ("uid", "alice2"),
                        ("sambaNTPassword", HASH.lower()))


def start(daemon, *options, **more):
    daemon.start("--verbose", *options, files={"directory.ldif": ldif()}, **more)


def last_refusal():
    return [line.text for line in log_lines() if line.level == "INF" and "NTLM from" in line.text][-1]


def test_logons__each_refusal_with_its_reason(daemon):
    start(daemon)
    for user, domain, expected in (
            ("alice", "CORP", "CORP\\alice"), ("ALICE", "corp.test", "CORP\\alice"), ("alice", "", "CORP\\alice"),
            ("zo\u00cb", "Corp", "CORP\\zo\u00eb"), ("alice2", "LAB", "LAB\\alice2"), ("alice.adams@corp.test", "", "CORP\\alice"),
            ("bob", "CORP", "the account is disabled"), ("carol", "CORP", "no NT hash"), ("nobody", "CORP", "no such user"),
            ("alice", "EVIL", "the domain is not one"), ("alice2", "CORP", "no such user")):
        got = ntlm.log_on(user, "password", domain)
        if "\\" in expected:
            assert got == expected, (user, domain)
            assert ntlm.log_on(user, "Password", domain) is None and last_refusal().endswith(": wrong password")
        else:
            assert got is None and expected in last_refusal(), (user, domain, last_refusal())
            assert f"from {ntlm.CLIENT} refused: {domain}\\{user}: " in last_refusal()
    assert ntlm.log_on("alice", "password", "CORP", "--option=client NTLMv2 auth=no") is None
    assert "only NTLMv2" in last_refusal()
    assert ntlm.log_on_with_curl("CORP\\alice", "password") == "CORP\\alice"
    assert ntlm.log_on_with_curl("alice", "passw0rd") is None
    assert not re.search("(?i)" + HASH, log_text())


def test_challenge__is_for_one_exchange_on_one_connection(daemon):
    start(daemon)
    with SambaClient("alice", "password", "CORP") as client, wire.Connection() as one, wire.Connection() as other:
        first, second = Logon(one), Logon(other)
        assert second.challenge(client.type1())
        answer = client.type3(first.challenge(client.type1()))
        assert second.user(answer) is None and last_refusal().endswith(": wrong password")
        assert first.user(answer) == "CORP\\alice"
        assert first.challenge(client.type1()), "the connection is free for another exchange"
        assert first.user(answer) is None, "which the old answer does not fit"
        assert other.query("192.0.2.254").result == 1


# The mechanism never gives back what a plain password cost its client, which a sanitizer would report.
WITHOUT_LEAKS = dict(os.environ, ASAN_OPTIONS="detect_leaks=0")


def authctl(*arguments, given):
    done = subprocess.run([program("authctl"), *arguments], input=given, capture_output=True, text=True, timeout=LONG_WAIT,
                          check=False, env=WITHOUT_LEAKS)
    return done.returncode, done.stdout, done.stderr


def test_authctl__logs_on_as_a_client(daemon):
    start(daemon)
    assert authctl("ntlm", "CORP\\alice", given="password\n") == (0, "CORP\\alice\n", "")
    assert authctl("ntlm", "alice.adams@corp.test", given="password") == (0, "CORP\\alice\n", "")
    code, out, errors = authctl("--json", "ntlm", "alice", "--client-ip", "192.0.2.9", given="Password\n")
    assert (code, out) == (1, '{"result":-1,"responseContent":""}\n') and "not accepted" in errors
    assert "from 192.0.2.9 refused: alice: wrong password" in last_refusal()
    assert authctl("ntlm", "alice", given="")[0] == 2 and authctl("ntlm", "", given="x\n")[0] == 2


def worker_figures(daemon):
    """Per worker: memory in MB, which says nothing under a sanitizer, and open descriptors."""
    figures, judged = {}, not workdir.sanitized("AuthDaemon")
    for pid in daemon.workers():
        with open(f"/proc/{pid}/statm", encoding="ascii") as file:
            figures[pid] = (int(file.read().split()[1]) * 4 / 1024 * judged, len(daemon.descriptors(pid)))
    return figures


def exchange_in_threads(threads, each, wrong_every=3):
    """All verdicts, counted; a third of the passwords is wrong."""
    verdicts = collections.Counter()
    lock = threading.Lock()

    def run(number):
        mine = collections.Counter()
        with SambaClient("alice", "password", "CORP") as right, SambaClient("alice2", "guess", "LAB") as wrong, \
                wire.Connection() as connection:
            for turn in range(each):
                client = wrong if (number + turn) % wrong_every == 0 else right
                mine[("wrong" if client is wrong else "right", client.log_on(connection))] += 1
        with lock:
            verdicts.update(mine)

    workers = [threading.Thread(target=run, args=(number,)) for number in range(threads)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    return verdicts


def test_many_connections__no_verdict_is_wrong_and_nothing_grows(daemon):
    start(daemon)
    each = int(os.environ.get("AUTHD_EXCHANGES", "960")) // 16
    exchange_in_threads(16, 20)
    before = worker_figures(daemon)
    verdicts = exchange_in_threads(16, each)
    assert set(verdicts) == {("right", "CORP\\alice"), ("wrong", None)} and sum(verdicts.values()) == 16 * each
    daemon.wait_idle()
    for pid, (memory, descriptors) in worker_figures(daemon).items():
        assert memory < before[pid][0] + 4 and descriptors <= before[pid][1]


def test_half_open_exchanges__go_with_their_connections(daemon):
    start(daemon)
    with SambaClient("alice", "password", "CORP") as client:
        type1 = client.type1()
    exchange_in_threads(16, 10)
    before = worker_figures(daemon)
    for _ in range(3):
        open_ones = []
        for _ in range(2000):  # each one served before the next: the daemon's queue of new ones is short
            open_ones.append(Logon(wire.Connection()))
            assert open_ones[-1].challenge(type1)
        assert ntlm.log_on("alice", "password", "CORP") == "CORP\\alice"
        for number, logon in enumerate(open_ones):
            (logon.connection.reset if number % 2 else logon.connection.close)()
        daemon.wait_idle()
    for pid, (memory, descriptors) in worker_figures(daemon).items():
        assert descriptors <= before[pid][1] + 1, daemon.descriptors(pid)
        assert memory < before[pid][0] + 6, before
