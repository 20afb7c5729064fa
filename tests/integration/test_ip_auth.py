"""Who is behind an address, asked of the agent: what it may answer, how it may fail, and who waits for it."""

import contextlib
import itertools
import os
import re
import select
import signal
import socket
import subprocess
import threading
import time

import pytest
from Velder_pb2 import IPAuthRequest

from harness import agent as agent_module
from harness import directory, sandbox, wire
from harness.daemon import IDLE_SOCKETS, program, until, write_file
from harness.store import another_writer

NO_SUCH = 32
INVALID = "Error: received invalid response from wmi daemon"
_addresses = (f"10.6.{high}.{low}" for high in range(256) for low in range(1, 251))


@pytest.fixture
def ip():
    """An address that no test has asked about: answers are remembered for two minutes."""
    return next(_addresses)


def auth(connection, ip, **fields):
    return connection.ask(wire.IP_AUTH, IPAuthRequest(ip=ip, **fields))


def wait_bound(connection, ip, user):
    until(lambda: connection.bound_user(ip) == user, lambda: f"{ip} bound to {user!r}: {connection.query(ip)}")


LONG_DOMAIN = "D" * (511 - len("tolva_wmi_ok:alice:"))


@pytest.mark.parametrize("pieces, result, bound, line", [
    ([b"tolva_wmi_ok:alice:CORP"], 0, "CORP\\alice", None),
    ([b"TOLVA_WMI_OK:alice:CORP"], 0, "CORP\\alice", None),
    ([b"tolva_wmi_ok:CORP\\alice:CORP"], 0, "CORP\\alice", "transparent_auth_handler(): cut off username to (alice)"),
    ([b"tolva_wmi_ok:a\\b\\c:CORP"], NO_SUCH, "CORP\\b\\c", "transparent_auth_handler(): cut off username to (b\\c)"),
    ([b"tolva_wmi_ok:alice:CORP\n"], NO_SUCH, "CORP\n\\alice", None),
    ([b"tolva_wmi_ok:alice:CORP:more"], NO_SUCH, "CORP:more\\alice", None),
    ([b"tolva_wmi_ok:alice:CORP\0:more"], 0, "CORP\\alice", None),
    ([b"tolva_wmi_ok:alice:corp.test"], 0, "corp.test\\alice", None),
    ([b"tolva_wmi_ok:ghost:CORP"], NO_SUCH, "CORP\\ghost", None),
    ([b"tolva_wmi_ok:alice:" + b"D" * 600], NO_SUCH, LONG_DOMAIN + "\\alice", None),
    ([b"tolva_wmi_ok:alice"], -1, None, INVALID),
    ([b"tolva_wmi_ok:" + b"a" * 600 + b":CORP"], -1, None, INVALID),
    ([b"tolva_wmi_ok:al", b"ice:CORP"], -1, None, INVALID),
    ([b"tolva_wmi_ok:alice:CO", b"RP"], NO_SUCH, "CO\\alice", None),
    ([b"tolva_wmi", b"_ok:alice:CORP"], -1, None, None),
    ([b"tolva_wmi_err:nobody there"], -1, None, None),
    ([b" tolva_wmi_ok:alice:CORP"], -1, None, None),
    ([b"\0"], -1, None, None),
    ([b"\xff\xfe" * 300], -1, None, None),
    ([], -1, None, re.compile(r"^Error: fail to receive resopnse from wim daemon \(.*\)$")),
], ids=lambda value: None)
def test_answer__decides_the_binding_and_what_the_waiting_client_gets(served, agent, ip, pieces, result, bound, line):
    if pieces:
        agent.answers(*pieces)  # none: closed without a word
    with wire.Connection() as connection:
        connection.query(ip)
        worker = served.worker_of(connection)
        before = served.count_lines(line, pid=worker) if line else 0
        answer = auth(connection, ip, **{"async": 1})
        assert answer.result == result
        assert answer.HasField("userInfo") == (result == 0)
        if result == 0:
            dn, uid, domain, upn = directory.USERS["Alice Adams"]
            info = answer.userInfo
            assert (info.user_ln, info.dn, info.uid, info.domain_dns, info.upn) == (bound, dn, uid, domain, upn)
            assert [group.cn for group in info.groupList] == directory.GROUPS_OF["alice"]
        if line:
            served.wait_line(line, pid=worker, level="DBG" if "cut off" in str(line) else "INF", count=before + 1)
        assert connection.bound_user(ip) == bound  # and the connection takes further requests
    assert agent.questions == [f"tolva_wmi:{ip}".encode()]


@pytest.mark.parametrize("scope, question, level, line", [
    (None, "tolva_wmi:", "DBG", "both dc cache and client wmi query"),
    (1, "tolva_wmi_dc:", "DBG", "only dc cache query"),
    (2, "tolva_wmi_client:", "DBG", "only wmi client query"),
    (3, "tolva_wmi:", "DBG", "query both dc cache and client"),
    (0, "tolva_wmi:", "INF", "Error: unkonw scope, query both dc cache and client"),
    (7, "tolva_wmi:", "INF", "Error: unkonw scope, query both dc cache and client"),
    (-1, "tolva_wmi:", "INF", "Error: unkonw scope, query both dc cache and client"),
])
def test_question__follows_the_scope(served, agent, ip, scope, question, level, line):
    agent.answers(b"no")
    before = served.count_lines(line, level=level)
    with wire.Connection() as connection:
        fields = {} if scope is None else {"scope": scope}
        assert auth(connection, ip, **{"async": 1}, **fields).result == -1
        # A text too long for an address is asked about as far as it goes, and not bound.
        agent.answers(b"tolva_wmi_ok:alice:CORP")
        assert auth(connection, "7" * 200, **{"async": 1}, **fields).userInfo.uid == "alice"
    assert agent.questions == [(question + ip).encode(), (question + "7" * 127).encode()]
    assert served.count_lines(line, level=level) == before + 2


@pytest.mark.parametrize("value", [None, 0, 2, -1])
def test_default_mode__answers_at_once_and_asks_once_in_two_minutes(served, agent, ip, value):
    go = threading.Event()

    def wait_then_answer(peer, _question):
        go.wait(agent_module.LONG_WAIT)
        peer.sendall(b"tolva_wmi_ok:alice:CORP")

    agent.script = wait_then_answer
    fields = {} if value is None else {"async": value}
    with served.connections_by_worker() as connections:
        one, other = connections.values()
        for _ in range(3):
            answer = auth(one, ip, **fields)
            assert (answer.result, answer.HasField("userInfo")) == (0, False)
        assert one.bound_user(ip) is None
        go.set()
        wait_bound(one, ip, "CORP\\alice")
        assert agent.questions == [f"tolva_wmi:{ip}".encode()]
        # Still the placeholder: what the agent said is found by a query.
        answer = auth(one, ip, **fields)
        assert (answer.result, answer.HasField("userInfo")) == (0, False)
        # A client that waits is never answered from memory, and another worker remembers on its own.
        assert auth(one, ip, **{"async": 1}).userInfo.uid == "alice"
        assert auth(other, ip, **fields).result == 0
        until(lambda: len(agent.questions) == 3, lambda: f"three questions, there were {agent.questions}")
    assert served.count_lines(f"messge_type(14), async, ip({ip}), cache, rc(0)", level="DBG") == 3
    assert served.count_lines(f"messge_type(14), async, ip({ip}), rc(0)", level="DBG") == 2
    assert served.count_lines(f"messge_type(IP_AUTH_RESPONSE), ip({ip}) rc(0)", level="DBG") == 1


@pytest.mark.parametrize("waits", [0, 1])
def test_answers_of_the_agent__that_find_a_writer_hold_up_nobody(daemon, agent, waits):
    daemon.start("--process-num", "1", workers=1, files=directory.files())
    agent.answers(b"tolva_wmi_ok:alice:CORP")
    asked = list(itertools.islice(_addresses, 20))  # more than there are threads
    asker, *clients = [wire.Connection() for _ in range(1 + len(asked))]
    for client, ip in zip(clients, asked):
        client.query(ip)  # accepted: the queue of new connections is short
    assert asker.user_info("alice").result == 0  # from the reply cache from here on
    with another_writer() as writer:
        begin, slowest = time.monotonic(), 0
        for client, ip in zip(clients, asked):
            client.send(wire.frame(wire.IP_AUTH, IPAuthRequest(ip=ip, **{"async": waits})))
        while (now := time.monotonic()) < begin + 1.5 or len(agent.questions) < len(asked):
            assert asker.user_info("alice").result == 0
            slowest = max(slowest, time.monotonic() - now)
        answered = len(select.select([client.socket for client in clients], [], [], 0)[0])
        assert answered == (0 if waits else len(clients))
        assert asker.bound_user(asked[0]) is None
        writer.stdin.close()
        for client, ip in zip(clients, asked):
            assert client.receive_answer(wire.IP_AUTH).userInfo.uid == ("alice" if waits else "")
            wait_bound(client, ip, "CORP\\alice")
    assert slowest < 0.5, f"a look-up took {slowest:.3f} s"
    for one in (asker, *clients):
        one.close()
    daemon.wait_idle()
    assert daemon.stop() == 0


def test_agent__not_listening(served, ip):
    before = served.count_lines("Error: fail to connect wmi daemon (Connection refused)", level="INF")
    with wire.Connection() as connection:
        assert auth(connection, ip, **{"async": 1}).result == -1
        assert auth(connection, ip).result == 0  # default mode does not know yet
        assert connection.bound_user(ip) is None
    told = [served.count_lines(re.compile(rf"^Error: fail to {what} .*\(Connection refused\)$"), level="INF")
            for what in ("connect", "write")]
    assert sum(told) >= before + 1


def test_agent__refuses_late(served, ip):
    """A full queue keeps the connect waiting until the listener is gone."""
    listener = socket.create_server(agent_module.ADDRESS, backlog=0)
    fillers = []
    for _ in range(3):
        fillers.append(filler := socket.socket())
        filler.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            filler.connect(agent_module.ADDRESS)
    text = "Error: fail to write wmi request to wmi daemon (Connection refused)"
    before = served.count_lines(text, level="INF")
    with wire.Connection() as waiting, wire.Connection() as other:
        waiting.send(wire.frame(wire.IP_AUTH, IPAuthRequest(ip=ip, **{"async": 1})))
        assert other.user_info("alice").result == 0
        until(lambda: "02" in states_towards_agent(served), "the connect to wait")
        for filler in fillers:
            filler.close()
        listener.close()
        assert waiting.receive_answer(wire.IP_AUTH).result == -1
    served.wait_line(text, level="INF", count=before + 1)


def states_towards_agent(daemon):
    """States of the daemon's connections to the agent, as the kernel numbers them."""
    inodes = {target for worker in daemon.workers() for target in daemon.descriptors(worker).values()}
    with open("/proc/net/tcp", encoding="ascii") as file:
        rows = [line.split() for line in file.readlines()[1:]]
    return [row[3] for row in rows if row[2].endswith(f":{agent_module.ADDRESS[1]:04X}")
            and (f"socket:[{row[9]}]" in inodes or row[3] == "02")]


def threads(daemon):
    return {worker: len(os.listdir(f"/proc/{worker}/task")) for worker in daemon.workers()}


def test_agent__silent_holds_up_nobody_and_leaks_nothing(served, agent):
    agent.is_silent()
    with served.connections_by_worker():  # each has met the bindings, which brings it a thread of their own
        threads_before = threads(served)
    waiting = []
    for ip in itertools.islice(_addresses, 500):
        waiting.append(connection := wire.Connection())
        connection.query(ip)  # accepted: the daemon's queue of new connections is short
        connection.send(wire.frame(wire.IP_AUTH, IPAuthRequest(ip=ip, **{"async": 1})))
    until(lambda: len(agent.questions) == len(waiting), lambda: f"all questions, {len(agent.questions)} came")
    with wire.Connection() as other:
        for _ in range(50):
            begin = time.monotonic()
            assert other.user_info("alice").result == 0
            assert time.monotonic() - begin < 1
        assert threads(served) == threads_before
        assert sum(served.sockets().values()) == 2 * IDLE_SOCKETS + 2 * len(waiting) + 1
    agent.release.set()
    for connection in waiting:
        assert connection.receive_answer(wire.IP_AUTH).result == -1
        assert connection.user_info("alice").result == 0
        connection.close()
    served.wait_idle()


def test_client__that_leaves_while_the_agent_thinks(served, agent, ip):
    agent.script = lambda peer, question: (agent.release.wait(30), peer.sendall(b"tolva_wmi_ok:alice:CORP"))
    for leave in (wire.Connection.close, wire.Connection.reset):
        connection = wire.Connection()
        connection.send(wire.frame(wire.IP_AUTH, IPAuthRequest(ip=ip, **{"async": 1})))
        until(lambda: agent.questions, "the question")
        agent.questions.clear()
        leave(connection)
    agent.release.set()
    with wire.Connection() as connection:
        wait_bound(connection, ip, "CORP\\alice")
    served.wait_idle()


@contextlib.contextmanager
def sample_agent(*options):
    write_file("people.csv", "# people\n10.7.0.1, alice, CORP\n10.7.0.2, rat, lab.test\n", folder=sandbox.OUTSIDE)
    with subprocess.Popen([program("wmi_agent_sample"), *options, f"{sandbox.OUTSIDE}/people.csv"],
                          stderr=subprocess.PIPE, text=True) as process:
        try:
            assert "listening on 127.0.0.1:5544" in process.stderr.readline()
            yield process
        finally:
            process.send_signal(signal.SIGTERM)
            process.communicate(timeout=10)
    assert process.returncode == 0


@pytest.mark.parametrize("options, ip, result, bound", [
    ([], "10.7.0.2", 0, "lab.test\\rat"),
    ([], "10.7.0.3", -1, None),
    (["--delay", "300", "--backslash"], "10.7.0.1", 0, "CORP\\alice"),
    (["--close-at-once"], "10.7.0.1", -1, None),
    (["--split"], "10.7.0.1", -1, None),
    (["--newline"], "10.7.0.1", NO_SUCH, "CORP\r\n\\alice"),
], ids=lambda value: " ".join(value) if isinstance(value, list) else None)
def test_sample_agent__and_daemon_understand_each_other(served, options, ip, result, bound):
    with sample_agent(*options), wire.Connection() as connection:
        connection.unbind(ip)
        assert (auth(connection, ip, **{"async": 1}).result, connection.bound_user(ip)) == (result, bound)
        connection.unbind(ip)


def test_end__of_the_daemon_while_exchanges_wait(daemon, agent):
    daemon.start(files=directory.files())
    agent.is_silent()
    with wire.Connection() as connection:
        connection.send(wire.frame(wire.IP_AUTH, IPAuthRequest(ip="10.7.1.1", **{"async": 1})))
        until(lambda: agent.questions, "the question")
        assert daemon.stop() == 0
        connection.expect_closed()
