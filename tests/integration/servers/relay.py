"""A TCP relay before a server, for the misfortunes that a real server cannot be told to have."""

import itertools
import select
import socket

from harness.listener import Listener, read_to_the_end

_ports = itertools.count(7100)


class Relay(Listener):
    """Listens on `port` and passes everything to `target` and back, until one of the tricks is set:

    `cut_after`    every connection is closed after that many bytes of answers
    `stall_after`  ... is held open and silent instead
    `garbage`      these bytes are the answer to every connection's first bytes
    """

    def __init__(self, target):
        self.target = target
        self.port = next(_ports)
        super().__init__(("127.0.0.1", self.port))
        self.url = f"ldap://127.0.0.1:{self.port}"
        self.cut_after = self.stall_after = self.garbage = None
        self.answered = 0  # bytes, of all connections

    def honest(self):
        self.cut_after = self.stall_after = self.garbage = None
        self.drop()

    def serve(self, client, _number):
        if self.garbage is not None:
            client.recv(4096)
            client.sendall(self.garbage)
            return read_to_the_end(client)
        with self.held(socket.socket()) as server:
            server.connect(("127.0.0.1", self.target))
            self._pass_on(client, server)

    def _pass_on(self, client, server):
        answered = 0
        while True:
            for ready in select.select([client, server], [], [])[0]:
                data = ready.recv(65536)
                if not data:
                    return
                if ready is client:
                    server.sendall(data)
                    continue
                answered += len(data)
                self.answered += len(data)
                if self.stall_after is not None and answered > self.stall_after:
                    return read_to_the_end(client)  # so that the client's requests arrive somewhere
                if self.cut_after is not None and answered > self.cut_after:
                    client.sendall(data[:len(data) // 2])
                    return
                client.sendall(data)
