"""Frames and connections: how bytes may come, what is refused, and clients that behave badly."""

import os
import signal
import socket
import subprocess

import pytest
from google.protobuf.message import DecodeError
from Velder_pb2 import (AllUserQueryRequest, GroupSearchRequest, IPAuthRequest, IPUserBindRequest,
                        IPUserQueryRequest, NTLMAuthRequest, UserInfoQueryRequest,
                        UserSearchRequest, UserSearchResponse)

from harness import directory, wire
from harness.daemon import IDLE_SOCKETS, log_lines, stat_fields, until

UNKNOWN = "192.0.2.1"
ASK_ALICE = wire.frame(wire.USER_INFO, UserInfoQueryRequest(user_ln="alice"))
TOO_BIG = "Error: receive message is too big, discard it"
MORE_NEEDED = "Info: need more data to continue"


def header(length, message_type):
    return wire.HEADER.pack(length, message_type)


def lines_of(daemon, connection):
    """Texts that the daemon logged for the connection, which has been served and is still open."""
    worker = daemon.worker_of(connection)
    port = connection.socket.getsockname()[1]
    with open("/proc/net/tcp", encoding="ascii") as file:
        rows = [line.split() for line in file.readlines()[1:]]
    inode = next(row[9] for row in rows if row[1].endswith(":044C") and row[2].endswith(f":{port:04X}"))
    tag = next(fd for fd, target in daemon.descriptors(worker).items() if target == f"socket:[{inode}]")
    return [line.text for line in log_lines() if (line.pid, line.tag) == (worker, tag)]


@pytest.mark.parametrize("pieces", [
    [bytes([byte]) for byte in ASK_ALICE],
    [ASK_ALICE[:8], ASK_ALICE[8:]],
    [ASK_ALICE[:7], ASK_ALICE[7:9], ASK_ALICE[9:]],
    [ASK_ALICE],
], ids=["one byte at a time", "header and body", "cut header", "whole"])
def test_request__may_come_in_pieces(served, pieces):
    with wire.Connection() as connection:
        connection.query(UNKNOWN)
        before = lines_of(served, connection)
        for number, piece in enumerate(pieces):
            if number > 0:  # the daemon has taken what came before
                until(lambda: lines_of(served, connection)[len(before):].count(MORE_NEEDED) >= number,
                      f"the daemon to ask for more after piece {number}")
            connection.send(piece)
        assert connection.receive_answer(wire.USER_INFO).userInfo.cn == "Alice Adams"
        resumed = lines_of(served, connection)[len(before):].count("Info: recv more data, continue handle message...")
        assert resumed == len(pieces) - 1


@pytest.mark.parametrize("request_bytes, level, text", [
    *[(header(0, number), "INF", f"Message type [{number}] is invalid.") for number in (-1, 28, 2**31 - 1, -2**31)],
    (header(100, 28), "INF", "Message type [28] is invalid."),  # also before the body has come
    *[(header(0, number), "ERR", f"Error: unknown message type ({number})") for number in (1, 15, 25, 27)],
    (header(wire.LARGEST_BODY + 1, wire.USER_INFO), "INF", TOO_BIG),
    (header(2**31 - 1, wire.USER_INFO) + b"x" * 50_000, "INF", TOO_BIG),
], ids=lambda value: value if isinstance(value, str) and len(value) > 3 else "")
def test_request__bad_header_closes(served, request_bytes, level, text):
    before = served.count_lines(text, level=level)
    with wire.Connection() as connection:
        connection.send(request_bytes)
        connection.expect_closed()
    served.wait_line(text, level=level, count=before + 1)
    assert served.count_lines(text) == before + 1


_MISSING = {
    wire.USER_SEARCH: UserSearchRequest(name="a"), wire.GROUP_SEARCH: GroupSearchRequest(fullmatch=1),
    wire.USER_GROUPS: b"", wire.IP_QUERY: b"", wire.VALIDATE: UserInfoQueryRequest(user_ln="alice"),
    wire.USER_INFO: b"", wire.IP_BIND: IPUserBindRequest(ip=UNKNOWN), wire.IP_AUTH: IPAuthRequest(scope=1),
    wire.IP_UNBIND: b"", wire.EXPORT: b"", wire.GROUP_GROUPS: GroupSearchRequest(name="a"),
    wire.ALL_USERS: AllUserQueryRequest(grouplist=["Staff"]), wire.NEGOTIATE: b"",
    wire.NTLM: NTLMAuthRequest(clientIP=UNKNOWN, requestContent="TlRMTVNTUAAB"),
}


@pytest.mark.parametrize("kind", ["missing field", "not a message", "cut off"])
@pytest.mark.parametrize("message_type", sorted(_MISSING))
def test_request__body_that_cannot_be_used_closes(served, message_type, kind):
    body = {"missing field": _MISSING[message_type], "not a message": b"\x07\xff\xff\xff\xff",
            "cut off": b"\x0a\x7fabc"}[kind]
    if not isinstance(body, bytes):
        body = body.SerializePartialToString()
    text = {wire.IP_AUTH: "Error: fail to parse IP_AUTH_REQUEST message",
            wire.NTLM: "Error: invalid NTLM_AUTH_REQUEST type 1 message",
            }.get(message_type, f"Error: fail to parse ({message_type}) message")
    before = served.count_lines(text, level="ERR")
    with wire.Connection() as connection:
        connection.send(wire.frame(message_type, body))
        connection.expect_closed()
    served.wait_line(text, level="ERR", count=before + 1)


def test_request__body_reaches_to_the_end_of_what_came(served):
    # A length below zero is always reached.
    with wire.Connection() as connection:
        connection.send(header(-1, wire.USER_INFO) + ASK_ALICE[8:])
        assert connection.receive_answer(wire.USER_INFO).userInfo.uid == "alice"
        connection.send(header(-2**31, wire.USER_INFO))  # a body without its name
        connection.expect_closed()
    # A second frame in the same segment is the end of the first one's body.
    bind = wire.frame(wire.IP_BIND, IPUserBindRequest(ip="10.8.1.1", user_ln="CORP\\alice"))
    before = served.count_lines("Error: fail to parse (12) message", level="ERR")
    with wire.Connection() as connection:
        connection.send(bind + bind)
        connection.expect_closed()
    served.wait_line("Error: fail to parse (12) message", level="ERR", count=before + 1)
    with wire.Connection() as connection:
        assert connection.bound_user("10.8.1.1") is None
        # So is what goes beyond the announced length.
        extra = IPUserBindRequest(user_ln="CORP\\bob").SerializePartialToString()
        connection.send(bind + extra)
        assert connection.receive_answer(wire.IP_BIND).result == 0
        assert connection.bound_user("10.8.1.1") == "CORP\\bob"
        assert connection.unbind("10.8.1.1") == 0


def test_request__of_the_largest_size_is_answered(served):
    empty = len(IPUserQueryRequest(ip="x" * (wire.LARGEST_BODY - 100)).SerializeToString()) - wire.LARGEST_BODY + 100
    request = IPUserQueryRequest(ip="x" * (wire.LARGEST_BODY - empty))
    with wire.Connection() as connection:
        data = wire.frame(wire.IP_QUERY, request)
        assert len(data) == wire.LARGEST_BODY + 8
        connection.send(data)
        assert connection.receive_answer(wire.IP_QUERY).result == -1
        assert connection.query(UNKNOWN).result == 1


def test_client__half_closed_still_gets_its_answer(served):
    with wire.Connection() as connection:
        connection.send(ASK_ALICE)
        connection.socket.shutdown(socket.SHUT_WR)
        assert connection.receive_answer(wire.USER_INFO).userInfo.uid == "alice"
        connection.expect_closed()
    with wire.Connection() as connection:
        connection.send(ASK_ALICE[:-1])
        connection.socket.shutdown(socket.SHUT_WR)
        connection.expect_closed()


def test_client__thousand_connections_at_once(served):
    connections = []
    for _ in range(1000):  # each one served before the next: the daemon's queue of new ones is short
        connections.append(connection := wire.Connection())
        assert connection.query(UNKNOWN).result == 1
    for connection in connections:
        connection.send(ASK_ALICE)
    for connection in connections:
        assert connection.receive_answer(wire.USER_INFO).userInfo.uid == "alice"
    assert sum(served.sockets().values()) == 1000 + 2 * IDLE_SOCKETS
    for number, connection in enumerate(connections):
        (connection.reset if number % 2 else connection.close)()
    served.wait_idle()


CROWD = 8_000  # all of them in the group of that name
LONG_NAME = "x" * 250  # so that fewer users, whose snapshot is made sooner, fill more than any socket buffer
EPOLL_WAIT_CALLS = ("232", "281")  # epoll_wait and epoll_pwait of x86-64
EVERYBODY = wire.frame(wire.USER_SEARCH, UserSearchRequest(name="", fullmatch=0))


@pytest.fixture
def crowded(daemon):
    """A directory whose complete list is larger than any socket buffer; one thread a worker."""
    daemon.start("--thread-num", "1", "--process-num", "1", workers=1,
                 files={"directory.ldif": directory.crowd(CROWD, LONG_NAME) + directory.crowd_group(CROWD, LONG_NAME),
                        "LdapSetting.ini": "[LDAP_Setting]\nSyncInterval=1440\nSearchLimit=0\n"})
    return daemon


def holds_crowd(body):
    try:
        answer = UserSearchResponse.FromString(body)
    except DecodeError:
        return False
    return answer.result == 0 and [user.uid for user in answer.userList] == [f"m{n:06}" for n in range(CROWD)]


def waits_in_the_loop(worker):
    """Whether the only thread of a worker's event loop has nothing to do."""
    for thread in os.listdir(f"/proc/{worker}/task"):
        with open(f"/proc/{worker}/task/{thread}/syscall", encoding="ascii") as file:
            if file.read().split()[0] in EPOLL_WAIT_CALLS:
                return True
    return False


def test_large_answer__slow_reader_gets_all_and_holds_up_nobody(crowded):
    """The reader takes what there is, then waits for the daemon to have sent what fits."""
    worker, = crowded.workers()
    with wire.Connection(receive_buffer=4096) as slow, wire.Connection() as other:
        slow.send(EVERYBODY)
        body, length = b"", None
        while length is None or len(body) < 8 + length:
            until(lambda: slow.socket.recv(1, socket.MSG_PEEK) and waits_in_the_loop(worker), "the daemon to wait")
            assert other.user_info("m000001").result == 0  # on the worker's only thread
            until(lambda: waits_in_the_loop(worker), "the daemon to wait")
            os.kill(crowded.pid, signal.SIGSTOP)  # a parent would take a stopped child for an ended one
            os.kill(worker, signal.SIGSTOP)
            until(lambda: stat_fields(worker)[1] == "T", "the worker to stop")
            body += drain(slow)
            os.kill(worker, signal.SIGCONT)
            length, message_type = wire.HEADER.unpack(body[:8])
        assert message_type == wire.USER_SEARCH + 1 and length > 4_000_000
        assert len(body) == 8 + length and holds_crowd(body[8:])
        assert slow.user_info("m000002").result == 0  # the connection reads again


def drain(connection):
    """What has come and what the system still holds for us."""
    data = b""
    connection.socket.settimeout(0.05)
    try:
        while piece := connection.socket.recv(1 << 20):
            data += piece
    except TimeoutError:
        return data
    finally:
        connection.socket.settimeout(20)
    return data


@pytest.fixture
def small_packets():
    subprocess.run(["ip", "link", "set", "lo", "mtu", "1500"], check=True)
    yield
    subprocess.run(["ip", "link", "set", "lo", "mtu", "65536"], check=True)


def test_large_answer__eager_reader_gets_the_whole_length(crowded, small_packets):
    for _ in range(5):
        with wire.Connection() as connection:
            connection.send(EVERYBODY)
            message_type, _ = connection.receive_frame()
            assert message_type == wire.USER_SEARCH + 1
            assert connection.user_info("m000002").result == 0
    assert crowded.stop() == 0


def test_large_answer__clients_that_leave_in_the_middle(crowded):
    worker, = crowded.workers()
    for number in range(16):
        connection = wire.Connection(receive_buffer=4096)
        connection.send(EVERYBODY)
        if number % 4 > 0:
            connection.receive(number * 100)
        (connection.reset if number % 2 else connection.close)()
    crowded.wait_idle()
    with wire.Connection() as connection:
        connection.send(EVERYBODY)
        assert connection.receive_frame()[0] == wire.USER_SEARCH + 1
    assert crowded.workers() == [worker]
    assert crowded.stop() == 0


def test_large_answer__of_another_kind_ends_a_connection_that_does_not_read(crowded):
    """Only searches wait for their reader; the others must be taken at once."""
    text = "Error: fail to send response message to client (Resource temporarily unavailable)"
    request = wire.frame(wire.ALL_USERS, AllUserQueryRequest(isDN=0, grouplist=["Crowd"] * 25))
    with wire.Connection(receive_buffer=4096) as connection:
        connection.send(request)
        crowded.wait_line(text, level="INF")
        length, message_type = wire.HEADER.unpack(connection.receive(8))
        assert message_type == wire.ALL_USERS + 1
        with pytest.raises(wire.Closed) as closed:
            connection.receive(length)
        assert len(closed.value.received) < length
    with wire.Connection() as connection:
        answer = connection.ask(wire.ALL_USERS, AllUserQueryRequest(isDN=0, grouplist=["Crowd"]))
        assert sorted(answer.groupuserlist[0].userlist) == [f"m{n:06}@corp.test" for n in range(CROWD)]
    crowded.wait_idle()
    assert crowded.stop() == 0
