"""Frames and connections: how bytes may come, what is refused, and clients that behave badly."""

import base64
import socket
from pathlib import Path

import pytest
from Velder_pb2 import (AllUserQueryRequest, IPAuthRequest, IPUserBindRequest, NEGOAuthRequest, NTLMAuthRequest,
                        UserInfoQueryRequest, UserSearchRequest, UserValidateRequest)

from harness import directory, wire
from harness.daemon import memory_of, until

ASK_ALICE = wire.frame(wire.USER_INFO, UserInfoQueryRequest(user_ln="alice"))
TOO_BIG = "Error: receive message is too big, discard it"


def header(length, message_type):
    return wire.HEADER.pack(length, message_type)


def expect_refused(daemon, request_bytes, level, text):
    """Closed without an answer, and told in one line."""
    before = daemon.count_lines(text, level=level)
    with wire.Connection() as connection:
        connection.send(request_bytes)
        connection.expect_closed()
    daemon.wait_line(text, level=level, count=before + 1)
    assert daemon.count_lines(text) == before + 1


@pytest.mark.parametrize("request_bytes, level, text", [
    *[(header(0, number), "INF", f"Message type [{number}] is invalid.") for number in (-1, 28, -2**31)],
    (header(100, 28), "INF", "Message type [28] is invalid."),  # also before the body has come
    *[(header(0, number), "ERR", f"Error: unknown message type ({number})") for number in (1, 25, 27)],
    (header(wire.LARGEST_BODY + 1, wire.USER_INFO), "INF", TOO_BIG),
    (header(2**31 - 1, wire.USER_INFO) + b"x" * 50_000, "INF", TOO_BIG),
    (wire.frame(wire.IP_AUTH, IPAuthRequest(scope=1).SerializePartialToString()), "ERR",
     "Error: fail to parse IP_AUTH_REQUEST message"),
    (wire.frame(wire.NTLM, b"\x0a\x7fabc"), "ERR", "Error: invalid NTLM_AUTH_REQUEST type 1 message"),
    *[(wire.frame(number, b""), "ERR", f"Error: fail to parse ({number}) message")
      for number in range(0, 28, 2) if number not in (wire.IP_AUTH, wire.NTLM)],
    (wire.frame(wire.USER_INFO, b"\x0a\x7fabc"), "ERR", f"Error: fail to parse ({wire.USER_INFO}) message"),
], ids=lambda value: value if isinstance(value, str) and len(value) > 3 else "")
def test_request__that_cannot_be_used_closes(served, request_bytes, level, text):
    expect_refused(served, request_bytes, level, text)


def test_request__may_come_byte_by_byte(served):
    more_needed = "Info: need more data to continue"
    before = served.count_lines(more_needed)
    with wire.Connection() as connection:
        for number, byte in enumerate(ASK_ALICE):
            until(lambda: served.count_lines(more_needed) >= before + number, "the daemon to take what came before")
            connection.send(bytes([byte]))
        assert connection.receive_answer(wire.USER_INFO).userInfo.cn == "Alice Adams"


def test_request__body_reaches_to_the_end_of_what_came(served):
    # A length below zero is always reached.
    with wire.Connection() as connection:
        connection.send(header(-1, wire.USER_INFO) + ASK_ALICE[8:])
        assert connection.receive_answer(wire.USER_INFO).userInfo.uid == "alice"
        connection.send(header(-2**31, wire.USER_INFO))  # a body without its name
        connection.expect_closed()
    # A second frame in the same segment is the end of the first one's body.
    bind = wire.frame(wire.IP_BIND, IPUserBindRequest(ip="10.8.1.1", user_ln="CORP\\alice"))
    expect_refused(served, bind + bind, "ERR", "Error: fail to parse (12) message")
    with wire.Connection() as connection:
        assert connection.bound_user("10.8.1.1") is None
        # So is what goes beyond the announced length.
        connection.send(bind + IPUserBindRequest(user_ln="CORP\\bob").SerializePartialToString())
        assert connection.receive_answer(wire.IP_BIND).result == 0
        assert connection.bound_user("10.8.1.1") == "CORP\\bob"
        assert connection.unbind("10.8.1.1") == 0


def test_client__half_closed_still_gets_its_answer(served):
    for request_bytes in (ASK_ALICE, ASK_ALICE[:-1]):
        with wire.Connection() as connection:
            connection.send(request_bytes)
            connection.socket.shutdown(socket.SHUT_WR)
            if request_bytes == ASK_ALICE:
                assert connection.receive_answer(wire.USER_INFO).userInfo.uid == "alice"
            connection.expect_closed()


def test_secret__is_in_no_memory_afterwards(served):
    """However its frame came, and whatever became of it."""
    marks = []

    def secret(mark):  # sixteen characters that come again and again: what is freed is overwritten in part
        marks.append(mark.encode() * 2)  # the parser leaves the last sixteen bytes of a body on the stack
        return mark * 40

    def validate(mark, user="alice"):
        return wire.frame(wire.VALIDATE, UserValidateRequest(user_ln=user, password=secret(mark)).SerializePartialToString())

    def more_needed():
        return served.count_lines("Info: need more data to continue")

    def send_in_pieces(connection, data):
        for begin in range(0, len(data), 100):
            before = more_needed()
            connection.send(data[begin:begin + 100])
            until(lambda: begin + 100 >= len(data) or more_needed() > before,  # pylint: disable=cell-var-from-loop
                  "the daemon to take a piece")

    with wire.Connection() as connection:
        send_in_pieces(connection, validate("PiecesPassword01"))
        assert connection.receive_answer(wire.VALIDATE).result == -1
        for kind, request in ((wire.NEGOTIATE, NEGOAuthRequest(requestContent=secret("NegotiateToken01"))),
                              (wire.NTLM, NTLMAuthRequest(messageType=1, clientIP="x", requestContent=secret("NtlmFirstToken01")))):
            assert connection.ask(kind, request).result == -1
    bind = wire.frame(wire.IP_BIND, IPUserBindRequest(ip="10.8.1.2", user_ln="CORP\\alice"))
    for data in (validate("NobodysPassword1", user=None), bind + validate("BehindAnother001"),
                 header(0, 28) + validate("BehindInvalid001")):
        with wire.Connection() as connection:
            connection.send(data)
            connection.expect_closed()
    for end in (wire.Connection.close, wire.Connection.reset):
        connection = wire.Connection()
        send_in_pieces(connection, validate(f"Incomplete{end.__name__:x<6}")[:-1])
        end(connection)
    served.wait_idle()
    left = {mark for pid in served.workers() for piece in memory_of(pid) for mark in marks
            if mark in piece or base64.b64decode(mark) in piece}
    assert not left


CROWD = 8_000  # all of them in the group of that name
SOCKET_BUFFER = max(2 * int(Path("/proc/sys/net/core/wmem_max").read_text("ascii")),
                    int(Path("/proc/sys/net/ipv4/tcp_wmem").read_text("ascii").split()[-1]))  # the largest there is
LONG_NAME = "x" * (250 + SOCKET_BUFFER // CROWD // 2)  # twice in an answer: fewer users, whose snapshot is made sooner, fill it
EVERYBODY = wire.frame(wire.USER_SEARCH, UserSearchRequest(name="", fullmatch=0))


@pytest.fixture
def crowded(daemon):
    """A directory whose complete list is larger than any socket buffer; one thread a worker."""
    daemon.start("--thread-num", "1", "--process-num", "1", workers=1,
                 files={"directory.ldif": directory.crowd(CROWD, LONG_NAME) + directory.crowd_group(CROWD, LONG_NAME),
                        "LdapSetting.ini": "[LDAP_Setting]\nSyncInterval=1440\nSearchLimit=0\n"})
    return daemon


def test_large_answer__waits_for_its_reader_and_holds_up_nobody(crowded):
    slow = wire.Connection(receive_buffer=4096)
    slow.send(EVERYBODY)
    until(lambda: slow.socket.recv(1, socket.MSG_PEEK), "the answer to begin")
    for number in range(16):
        connection = wire.Connection(receive_buffer=4096)
        connection.send(EVERYBODY)
        if number % 4 > 0:
            connection.receive(number * 100)
        (connection.reset if number % 2 else connection.close)()  # in the middle of its answer
    with wire.Connection() as other:
        assert other.user_info("m000001").result == 0  # on the worker's only thread
    message_type, body = slow.receive_frame()
    assert message_type == wire.USER_SEARCH + 1 and len(body) > SOCKET_BUFFER
    assert slow.user_info("m000002").result == 0  # the connection reads again
    slow.close()
    crowded.wait_idle()
    assert crowded.stop() == 0


def test_large_answer__of_another_kind_ends_a_connection_that_does_not_read(crowded):
    """Only searches wait for their reader; the others must be taken at once."""
    text = "Error: fail to send response message to client (Resource temporarily unavailable)"
    with wire.Connection(receive_buffer=4096) as connection:
        connection.send(wire.frame(wire.ALL_USERS, AllUserQueryRequest(isDN=0, grouplist=["Crowd"] * (25 + SOCKET_BUFFER // CROWD // 18))))
        crowded.wait_line(text, level="INF")
        length, message_type = wire.HEADER.unpack(connection.receive(8))
        assert message_type == wire.ALL_USERS + 1
        with pytest.raises(wire.Closed) as closed:
            connection.receive(length)
        assert len(closed.value.received) < length
    answer = wire.ask(wire.ALL_USERS, AllUserQueryRequest(isDN=0, grouplist=["Crowd"]))
    assert sorted(answer.groupuserlist[0].userlist) == [f"m{n:06}@corp.test" for n in range(CROWD)]
