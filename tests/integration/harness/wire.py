"""A client of the daemon that shares nothing with the product but the schema file."""

import errno
import os
import socket
import struct
import time

import Velder_pb2 as pb

ADDRESS = ("127.0.0.1", 1100)
HEADER = struct.Struct("<ii")
LARGEST_BODY = 10_485_760

(USER_SEARCH, GROUP_SEARCH, USER_GROUPS, IP_QUERY, VALIDATE, USER_INFO, IP_BIND, IP_AUTH, NTLM, IP_UNBIND, EXPORT, GROUP_GROUPS,
 ALL_USERS, NEGOTIATE) = range(0, 28, 2)
_ANSWERS = [pb.UserSearchResponse, pb.GroupSearchResponse, pb.UserGroupQueryResponse, pb.IPUserQueryResponse,
            pb.UserValidateResponse, pb.UserInfoQueryResponse, pb.IPUserBindResponse, pb.IPAuthResponse, pb.NTLMAuthResponse,
            pb.IPUserUnBindResponse, pb.IPUserCacheExportResponse, pb.GroupSearchResponse, pb.AllUserQueryResponse,
            pb.NEGOAuthResponse]


class Closed(Exception):
    """The daemon closed the connection; `received` is what had come before."""

    def __init__(self, received):
        super().__init__(f"closed after {len(received)} bytes")
        self.received = received


def frame(message_type, message):
    body = message if isinstance(message, bytes) else message.SerializeToString()
    return HEADER.pack(len(body), message_type) + body


class Connection:
    """One connection; usable as a context manager. `timeout` is for every single wait."""

    def __init__(self, timeout=20, receive_buffer=None):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if receive_buffer is not None:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(timeout)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        # The daemon's queue of new connections is short: a burst may be refused for a moment.
        deadline = time.monotonic() + timeout
        while (code := self.socket.connect_ex(ADDRESS)) != 0:
            if code != errno.EAGAIN or time.monotonic() > deadline:
                self.socket.close()
                raise OSError(code, os.strerror(code))
            time.sleep(0.01)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def reset(self):
        """Ends the connection with a reset instead of an orderly close."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()

    def send(self, data):
        self.socket.sendall(data)

    def receive(self, size):
        data = bytearray()
        while len(data) < size:
            try:
                piece = self.socket.recv(size - len(data))
            except ConnectionResetError:
                piece = b""
            if not piece:
                raise Closed(bytes(data))
            data += piece
        return bytes(data)

    def receive_frame(self):
        length, message_type = HEADER.unpack(self.receive(HEADER.size))
        return message_type, self.receive(length)

    def receive_answer(self, request_type):
        message_type, body = self.receive_frame()
        assert message_type == request_type + 1, f"answer of type {message_type} to {request_type}"
        return _ANSWERS[request_type // 2].FromString(body)

    def ask(self, request_type, message):
        self.send(frame(request_type, message))
        return self.receive_answer(request_type)

    def expect_closed(self):
        """Waits for the end of the connection; nothing may come before it."""
        try:
            data = self.receive(1)
        except Closed:
            return
        raise AssertionError(f"expected a closed connection, received {data!r}")

    # What tests ask most, by name.
    def bind(self, ip, user):
        return self.ask(IP_BIND, pb.IPUserBindRequest(ip=ip, user_ln=user)).result

    def unbind(self, ip):
        return self.ask(IP_UNBIND, pb.IPUserUnBindRequest(ip=ip)).result

    def query(self, ip):
        return self.ask(IP_QUERY, pb.IPUserQueryRequest(ip=ip))

    def bound_user(self, ip):
        """The user bound to the address, or None."""
        answer = self.query(ip)
        return answer.userInfo.user_ln if answer.result == 0 else None

    def export(self, path):
        return self.ask(EXPORT, pb.IPUserCacheExportRequest(file_path=path)).result

    def user_info(self, user):
        return self.ask(USER_INFO, pb.UserInfoQueryRequest(user_ln=user))

    def validate(self, user, password):
        return self.ask(VALIDATE, pb.UserValidateRequest(user_ln=user, password=password)).result

    def user_search(self, name, fullmatch=0):
        return self.ask(USER_SEARCH, pb.UserSearchRequest(name=name, fullmatch=fullmatch))


def ask(request_type, message):
    with Connection() as connection:
        return connection.ask(request_type, message)
