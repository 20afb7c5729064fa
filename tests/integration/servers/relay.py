"""A TCP relay before a server, for the misfortunes that a real server cannot be told to have."""

import select
import socket

from harness.listener import Listener, read_to_the_end


class Relay(Listener):
    """Passes everything to port `target` and back, until one of the tricks is set:

    `cut_after`    every connection is closed after that many bytes of answers
    `stall_after`  ... is held open and silent instead
    `garbage`      these bytes are the answer to every connection's first bytes
    """

    def __init__(self, target):
        super().__init__()
        self.target = target
        self.answered = 0  # bytes, of all connections
        self.honest()

    def honest(self):
        self.cut_after = self.stall_after = self.garbage = None
        self.drop()

    def serve(self, client, _number):
        if self.garbage is not None:
            client.recv(4096)
            client.sendall(self.garbage)
            return read_to_the_end(client)
        with self.held(socket.create_connection(("127.0.0.1", self.target))) as server:
            answered = 0
            while True:
                for ready in select.select([client, server], [], [])[0]:
                    if not (data := ready.recv(65536)):
                        return None
                    if ready is client:
                        server.sendall(data)
                        continue
                    answered += len(data)
                    self.answered += len(data)
                    if self.stall_after is not None and answered > self.stall_after:
                        return read_to_the_end(client)  # so that the client's requests arrive somewhere
                    if self.cut_after is not None and answered > self.cut_after:
                        return client.sendall(data[:len(data) // 2])
                    client.sendall(data)
