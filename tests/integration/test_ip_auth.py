"""Who is behind an address, asked of the agent: what it may answer, how it may fail, and who waits for it."""

import contextlib
import itertools
import re
import select
import signal
import socket
import subprocess
import time

import pytest
from Velder_pb2 import IPAuthRequest, IPUserBindRequest

from harness import agent as agent_module
from harness import directory, sandbox, wire
from harness.daemon import IDLE_SOCKETS, program, until, write_file
from harness.store import another_writer

NO_SUCH = 32
INVALID = "Error: received invalid response from wmi daemon"
ALICE = b"tolva_wmi_ok:alice:CORP"
WAIT = {"async": 1}  # the client waits for the agent
_addresses = (f"10.6.{high}.{low}" for high in range(256) for low in range(1, 251))


@pytest.fixture
def ip():
    """An address that no test has asked about: answers are remembered for two minutes."""
    return next(_addresses)


def auth(connection, ip, **fields):
    return connection.ask(wire.IP_AUTH, IPAuthRequest(ip=ip, **fields))


def question(ip):
    return wire.frame(wire.IP_AUTH, IPAuthRequest(ip=ip, **WAIT))


def wait_bound(connection, ip, user):
    until(lambda: connection.bound_user(ip) == user, lambda: f"{ip} bound to {user!r}: {connection.query(ip)}")


@pytest.mark.parametrize("pieces, result, bound, line", [
    ([ALICE], 0, "CORP\\alice", None),
    ([b"TOLVA_WMI_OK:alice:corp.test\0:more"], 0, "corp.test\\alice", None),
    ([b"tolva_wmi_ok:CORP\\alice:CORP"], 0, "CORP\\alice", "transparent_auth_handler(): cut off username to (alice)"),
    ([b"tolva_wmi_ok:a\\b\\c:CORP"], NO_SUCH, "CORP\\b\\c", "transparent_auth_handler(): cut off username to (b\\c)"),
    ([b"tolva_wmi_ok:alice:CORP:more\n"], NO_SUCH, "CORP:more\n\\alice", None),
    ([b"tolva_wmi_ok:alice:" + b"D" * 600], NO_SUCH, "D" * (511 - len("tolva_wmi_ok:alice:")) + "\\alice", None),
    ([b"tolva_wmi_ok:" + b"a" * 600 + b":CORP"], -1, None, INVALID),
    ([b"tolva_wmi_ok:al", b"ice:CORP"], -1, None, INVALID),
    ([b"tolva_wmi_ok:alice:CO", b"RP"], NO_SUCH, "CO\\alice", None),
    ([b" tolva_wmi_ok:alice:CORP"], -1, None, None),
    ([b"\xff\xfe" * 300], -1, None, None),
    ([], -1, None, re.compile(r"^Error: fail to receive resopnse from wim daemon \(.*\)$")),
], ids=lambda value: None)
def test_answer__decides_the_binding_and_what_the_waiting_client_gets(served, agent, ip, pieces, result, bound, line):
    if pieces:
        agent.answers(*pieces)  # none: closed without a word
    before = served.count_lines(line) if line else 0
    with wire.Connection() as connection:
        answer = auth(connection, ip, **WAIT)
        assert (answer.result, answer.HasField("userInfo")) == (result, result == 0)
        if result == 0:
            assert (answer.userInfo.user_ln, answer.userInfo.dn) == (bound, directory.user_dn("Alice Adams"))
            assert [group.cn for group in answer.userInfo.groupList] == directory.GROUPS_OF["alice"]
        if line:
            served.wait_line(line, level="DBG" if "cut off" in str(line) else "INF", count=before + 1)
        assert connection.bound_user(ip) == bound  # and the connection takes further requests
    assert agent.questions == [f"tolva_wmi:{ip}".encode()]


def test_question__follows_the_scope(served, agent, ip):
    agent.answers(ALICE)
    unknown = "Error: unkonw scope, query both dc cache and client"
    with wire.Connection() as connection:
        for scope, text, line in [({}, "tolva_wmi:", "both dc cache and client wmi query"),
                                  ({"scope": 1}, "tolva_wmi_dc:", "only dc cache query"),
                                  ({"scope": 2}, "tolva_wmi_client:", "only wmi client query"),
                                  ({"scope": 3}, "tolva_wmi:", "query both dc cache and client"),
                                  ({"scope": 0}, "tolva_wmi:", unknown)]:
            before = served.count_lines(line)
            for asked in (ip, "7" * 200):  # a text too long for an address is asked about as far as it goes
                assert auth(connection, asked, **WAIT, **scope).userInfo.uid == "alice"
            assert agent.questions[-2:] == [(text + ip).encode(), (text + "7" * 127).encode()]
            assert served.count_lines(line, level="INF" if line is unknown else "DBG") == before + 2


@pytest.mark.parametrize("fields", [{}, {"async": -1}], ids=str)
def test_default_mode__answers_at_once_and_asks_once_in_two_minutes(served, agent, ip, fields):
    def wait_then_answer(peer, _question):
        agent.release.wait(agent_module.LONG_WAIT)
        peer.sendall(ALICE)

    def placeholder(connection):
        answer = auth(connection, ip, **fields)
        return (answer.result, answer.HasField("userInfo")) == (0, False)

    agent.script = wait_then_answer
    with served.connections_by_worker() as connections:
        one, other = connections.values()
        assert all(placeholder(one) for _ in range(3))
        assert one.bound_user(ip) is None
        agent.release.set()
        wait_bound(one, ip, "CORP\\alice")
        assert agent.questions == [f"tolva_wmi:{ip}".encode()]
        # Still the placeholder: what the agent said is found by a query.
        assert placeholder(one)
        # A client that waits is never answered from memory, and another worker remembers on its own.
        assert auth(one, ip, **WAIT).userInfo.uid == "alice"
        assert placeholder(other)
        until(lambda: len(agent.questions) == 3, lambda: f"three questions, there were {agent.questions}")


BINDING = {
    "bind": (wire.IP_BIND, lambda ip: IPUserBindRequest(ip=ip, user_ln="CORP\\alice")),
    "agent, the client waits": (wire.IP_AUTH, lambda ip: IPAuthRequest(ip=ip, **WAIT)),
    "agent, nobody waits": (wire.IP_AUTH, lambda ip: IPAuthRequest(ip=ip)),
}


@pytest.mark.parametrize("origin", BINDING)
def test_bindings__that_find_another_writer_hold_up_nobody(daemon, agent, origin):
    kind, message = BINDING[origin]
    daemon.start("--process-num", "1", workers=1, files=directory.files())
    agent.answers(ALICE)
    asked = list(itertools.islice(_addresses, 20))  # more than there are threads
    asker, *clients = [wire.Connection() for _ in range(1 + len(asked))]
    for client in clients:
        client.query(asked[0])  # accepted: the queue of new connections is short
    assert asker.user_info("alice").result == 0  # from the reply cache from here on
    with another_writer() as writer:
        begin, slowest = time.monotonic(), 0
        for client, ip in zip(clients, asked):
            client.send(wire.frame(kind, message(ip)))
        while (now := time.monotonic()) < begin + 1.5 or kind == wire.IP_AUTH and len(agent.questions) < len(asked):
            assert asker.user_info("alice").result == 0
            slowest = max(slowest, time.monotonic() - now)
        answered = select.select([client.socket for client in clients], [], [], 0)[0]
        assert len(answered) == (len(clients) if "nobody" in origin else 0)
        assert asker.bound_user(asked[0]) is None
        writer.stdin.close()
        for client, ip in zip(clients, asked):
            answer = client.receive_answer(kind)
            assert answer.result == 0 and ("client" not in origin or answer.userInfo.uid == "alice")
            wait_bound(client, ip, "CORP\\alice")
    assert slowest < 0.5, f"a look-up took {slowest:.3f} s"
    assert daemon.stop() == 0


def connects_that_wait():
    with open("/proc/net/tcp", encoding="ascii") as file:
        rows = [line.split() for line in file]
    return sum(row[2].endswith(f":{agent_module.ADDRESS[1]:04X}") and row[3] == "02" for row in rows)


def test_agent__not_listening_or_no_longer(served, ip):
    with wire.Connection() as waiting, wire.Connection() as other:
        assert auth(other, ip, **WAIT).result == -1
        assert auth(other, ip).result == 0  # default mode does not know yet
        # A full queue keeps the connect waiting until the listener is gone.
        with socket.create_server(agent_module.ADDRESS, backlog=0), contextlib.ExitStack() as fillers:
            for _ in range(3):
                filler = fillers.enter_context(socket.socket())
                filler.setblocking(False)
                filler.connect_ex(agent_module.ADDRESS)
            before = connects_that_wait()
            waiting.send(question(ip))
            until(lambda: connects_that_wait() > before, "the connect to wait")
            assert other.user_info("alice").result == 0
        assert waiting.receive_answer(wire.IP_AUTH).result == -1
        assert other.bound_user(ip) is None
    served.wait_line("Error: fail to write wmi request to wmi daemon (Connection refused)", level="INF")


def test_agent__silent_holds_up_nobody_and_leaks_nothing(served, agent):
    agent.is_silent()
    waiting = []
    for ip in itertools.islice(_addresses, 500):
        waiting.append(connection := wire.Connection())
        connection.query(ip)  # accepted: the daemon's queue of new connections is short
        connection.send(question(ip))
    until(lambda: len(agent.questions) == len(waiting), lambda: f"all questions, {len(agent.questions)} came")
    with wire.Connection() as other:
        for _ in range(50):
            begin = time.monotonic()
            assert other.user_info("alice").result == 0
            assert time.monotonic() - begin < 1
        assert sum(served.sockets().values()) == 2 * IDLE_SOCKETS + 2 * len(waiting) + 1
    agent.release.set()
    for connection in waiting:
        assert connection.receive_answer(wire.IP_AUTH).result == -1
        assert connection.user_info("alice").result == 0
        connection.close()


def test_client__that_leaves_while_the_agent_thinks(served, agent, ip):
    agent.script = lambda peer, _question: agent.release.wait(30) and peer.sendall(ALICE)
    for number, leave in enumerate((wire.Connection.close, wire.Connection.reset), start=1):
        connection = wire.Connection()
        connection.send(question(ip))
        until(lambda count=number: len(agent.questions) == count, "the question")
        leave(connection)
    agent.release.set()
    with wire.Connection() as connection:
        wait_bound(connection, ip, "CORP\\alice")


def test_sample_agent__and_daemon_understand_each_other(served):
    write_file("people.csv", "# people\n10.7.0.1, alice, CORP\n", folder=sandbox.OUTSIDE)
    command = [program("wmi_agent_sample"), "--delay", "300", "--backslash", f"{sandbox.OUTSIDE}/people.csv"]
    with subprocess.Popen(command, stderr=subprocess.PIPE, text=True) as process, wire.Connection() as connection:
        assert "listening on 127.0.0.1:5544" in process.stderr.readline()
        assert auth(connection, "10.7.0.1", **WAIT).userInfo.user_ln == "CORP\\alice"
        assert auth(connection, "10.7.0.2", **WAIT).result == -1
        process.send_signal(signal.SIGTERM)
    assert process.returncode == 0


def test_end__of_the_daemon_while_exchanges_wait(daemon, agent):
    daemon.start(files=directory.files())
    agent.is_silent()
    with wire.Connection() as connection:
        connection.send(question("10.7.1.1"))
        until(lambda: agent.questions, "the question")
        assert daemon.stop() == 0
        connection.expect_closed()
